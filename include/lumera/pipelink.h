// pipelink.dll: the product's named-pipe connector. Its KyCreateObject makes "connserver"
// (IConnServer) and "connclient" (IConnClient); the host plug-ins of the same names hand
// out these objects.
//
// Pipes are overlapped, message-mode, reject remote clients and carry the security descriptor
// "D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x12018b;;;IU)": SYSTEM and Administrators have full control,
// interactive users kClientPipeAccess only, which leaves out FILE_CREATE_PIPE_INSTANCE, so no
// user can serve a name. The first instance is made with FILE_FLAG_FIRST_PIPE_INSTANCE: a second
// server of a name is refused (logged). A pipe serves at most kMaxSessionsPerPipe clients at once;
// one more is accepted, sent a welcome whose result is 231 (ERROR_PIPE_BUSY) and disconnected
// (logged), while the others go on being answered. A client opens with kClientPipeAccess,
// SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, and before it reads or sends anything checks
// that the serving process runs as LocalSystem (S-1-5-18); otherwise it refuses with 5 (logged).
// One pipe message is one frame:
//
//   offset size field
//        0    4 magic       kFrameMagic
//        4    4 client id   sender's identity: 0 from a server, the id the server gave the
//                           client otherwise (sent to it in the first frame, kIdHello)
//        8    4 result      result code of a reply, 0 otherwise
//       12    4 size        payload bytes following the header; must equal the bytes received
//                           minus the header
//       16    4 message id
//       20    4 flags       kFlagReplyExpected, kFlagIsReply, kFlagControl; other bits invalid
//       24    4 sequence    per-sender request number; a reply carries its request's number
//       28    4 reserved    0
//       32    n payload
//
// All fields little-endian. A frame longer than kMaxFrameBytes, shorter than the header, or
// with a wrong magic, size, flags or sender drops the connection it arrived on, never the
// server. Callbacks run on the connector's own threads (one per connection), one message at
// a time per connection; Stop, ReleasePipeServer and Close end and join those threads, and a
// callback is never running once UnregisterCallback has returned.
#pragma once

#include <cstdint>

#include "lumera/ky_base.h"

namespace pipelink {

inline constexpr std::uint32_t kFrameMagic = 0x4B4C504C;  // "LPLK"
inline constexpr std::uint32_t kFrameHeaderBytes = 32;
inline constexpr std::uint32_t kMaxFrameBytes = 1024 * 1024;
inline constexpr std::uint32_t kMaxPayloadBytes = kMaxFrameBytes - kFrameHeaderBytes;

inline constexpr std::uint32_t kFlagReplyExpected = 0x1;  // sent with a synchronous send
inline constexpr std::uint32_t kFlagIsReply = 0x2;
inline constexpr std::uint32_t kFlagControl = 0x4;  // connector's own frames, never delivered
inline constexpr std::uint32_t kKnownFlags = kFlagReplyExpected | kFlagIsReply | kFlagControl;

inline constexpr std::uint32_t kIdHello = 1;  // control frame: the server's welcome, client id in `client id`

inline constexpr std::uint32_t kNoTimeout = 0xFFFFFFFF;
inline constexpr std::uint32_t kMaxSessionsPerPipe = 64;
// Read and write of data, and FILE_WRITE_ATTRIBUTES to set the message read mode.
inline constexpr DWORD kClientPipeAccess = FILE_GENERIC_READ | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES;
inline constexpr std::uint32_t kCallbackMessages = 1;  // the one callback kind: arriving messages

// A message as delivered to a callback or returned as a reply. The payload pointer is valid
// for the duration of the callback, or until FreeReply for a reply.
struct PipeMessage {
  std::uint32_t clientId;
  std::uint32_t result;
  std::uint32_t size;
  std::uint32_t id;
  const std::uint8_t* payload;
  std::uint32_t flags;     // kFlagReplyExpected set when the sender waits for a reply
  std::uint32_t sequence;  // connector's own: matches a reply to its request
};

inline bool ExpectsReply(const PipeMessage& message) { return (message.flags & kFlagReplyExpected) != 0; }

// Called for every arriving message. When the message expects a reply and the callback did
// not reply, the connector replies with the returned status and no payload.
using PipeCallback = std::uint32_t(__cdecl*)(void* context, const PipeMessage* message);

// One listening pipe of a connector server and the clients connected to it.
struct IConnPipeServer {
  // Posts a message to one connected client. 1168 when no such client, otherwise the write's code.
  virtual std::uint32_t Post(std::uint32_t id, const void* payload, std::uint32_t size,
                                    std::uint32_t clientId) = 0;  // slot 0
  // Replies to a message that expects a reply with a result code and no payload.
  virtual std::uint32_t ReplyError(const PipeMessage* request, std::uint32_t code) = 0;  // slot 1
  // Replies to a message that expects a reply with result 0 and data under message id `id`.
  virtual std::uint32_t ReplyData(const PipeMessage* request, std::uint32_t id, const void* payload,
                                  std::uint32_t size) = 0;  // slot 2
  // Sets the message callback (kind kCallbackMessages); 183 when one is already set.
  virtual std::uint32_t RegisterCallback(PipeCallback callback, void* context, std::uint32_t kind) = 0;  // slot 3
  // Removes it, waiting for a running call to return; 1168 when none is set.
  virtual std::uint32_t UnregisterCallback(std::uint32_t kind) = 0;  // slot 4

 protected:
  ~IConnPipeServer() = default;
};

// The "connserver" object.
struct IConnServer : IKyBaseInterface {
  // Creates the pipe `name` (without "\\.\pipe\") and starts listening; *out is null on
  // failure. 5 (access denied, logged) when another server already owns the name.
  virtual std::uint32_t CreatePipeServer(const wchar_t* name, std::uint32_t flags, IConnPipeServer** out) = 0;  // slot 1
  // Disconnects every client, ends the pipe's threads and frees it.
  virtual void ReleasePipeServer(IConnPipeServer* server) = 0;  // slot 2
  // Posts a message to every client of every pipe of this server; each write may take up to
  // `timeoutMs` (kNoTimeout: no limit). Returns 0, or the last failing write's code.
  virtual std::uint32_t Broadcast(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t reserved1,
                                  std::uint32_t reserved2, std::uint32_t timeoutMs) = 0;  // slot 3
};

// One connection of a connector client.
struct IConnPipeClient {
  // Sends and waits up to `timeoutMs` for the reply; on 0, *reply holds it (its result may be
  // non-zero) and must be given to FreeReply. 258 on time-out, 109 when the pipe broke.
  virtual std::uint32_t Send(std::uint32_t id, const void* payload, std::uint32_t size, PipeMessage** reply,
                                    std::uint32_t flags, std::uint32_t timeoutMs) = 0;  // slot 0
  // Sends without waiting for any answer.
  virtual std::uint32_t Post(std::uint32_t id, const void* payload, std::uint32_t size,
                                    std::uint32_t flags) = 0;  // slot 1
  virtual void FreeReply(PipeMessage* reply) = 0;  // slot 2
  // As on IConnPipeServer.
  virtual std::uint32_t RegisterCallback(PipeCallback callback, void* context, std::uint32_t kind) = 0;  // slot 3
  virtual std::uint32_t UnregisterCallback(std::uint32_t kind) = 0;                                      // slot 4
  // Answers a message with a status when it expects a reply (0 and nothing sent otherwise).
  virtual std::uint32_t Acknowledge(const PipeMessage* message, std::uint32_t status) = 0;  // slot 5
  // Replies to a message that expects a reply with result 0 and data.
  virtual std::uint32_t ReplyData(const PipeMessage* request, std::uint32_t id, const void* payload,
                                  std::uint32_t size) = 0;  // slot 6
  // Disconnects and ends the connection's thread; later sends fail with 233.
  virtual std::uint32_t Stop() = 0;  // slot 7
  // The identity the server gave this connection.
  virtual std::uint32_t ClientId() = 0;  // slot 8

 protected:
  ~IConnPipeClient() = default;
};

// The "connclient" object.
struct IConnClient : IKyBaseInterface {
  virtual std::uint32_t Init(std::uint32_t flags) = 0;  // slot 1
  virtual std::uint32_t Start() = 0;                    // slot 2
  // Connects to the pipe `name` within `timeoutMs` (2 when no such pipe, 258 on time-out, 231
  // when the server serves as many clients as it will, 5 when the server does not run as
  // LocalSystem); *out is null on failure.
  virtual std::uint32_t Connect(const wchar_t* name, std::uint32_t reserved1, std::uint32_t reserved2,
                                std::uint32_t timeoutMs, IConnPipeClient** out) = 0;  // slot 3
  // Stops and frees a connection.
  virtual void Close(IConnPipeClient* connection) = 0;  // slot 4
  // Stops every connection still open; Connect fails with 1062 until the next Start.
  virtual std::uint32_t Stop() = 0;  // slot 5
  // As Connect, and gives up with 995 (ERROR_OPERATION_ABORTED) as soon as `stopEvent` is set
  // (null: never), so a caller that is being stopped never waits out the time-out.
  virtual std::uint32_t ConnectUntil(const wchar_t* name, HANDLE stopEvent, std::uint32_t timeoutMs,
                                     IConnPipeClient** out) = 0;  // slot 6
};

}  // namespace pipelink

namespace lumera::ids {
inline constexpr GUID PipeLinkServer = {0x06D9AD73, 0x7358, 0x4D07, {0x81, 0x3D, 0x38, 0xDC, 0x52, 0x2E, 0xE3, 0x83}};
inline constexpr GUID PipeLinkClient = {0x3C47FC8C, 0x38C8, 0x42B8, {0x95, 0x67, 0x5B, 0xF1, 0x2D, 0xF4, 0x78, 0x38}};
}  // namespace lumera::ids
