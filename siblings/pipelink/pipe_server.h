// The "connserver" object and its pipes: one listening thread per pipe and one thread per
// connected client, which reads that client's frames and runs the pipe's callback.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "callback_slot.h"
#include "common/unique_handle.h"
#include "lumera/pipelink.h"
#include "pipe_io.h"

namespace pipelink {

class PipeServer;

// One connected client of a pipe.
class Session {
 public:
  Session(std::uint32_t id, HANDLE pipe, PipeServer& owner);
  ~Session();  // joins the thread
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] bool Start();
  std::uint32_t Id() const { return id_; }
  bool Done() const { return done_; }
  // True once the welcome frame is written; until then the session takes no broadcast.
  bool Welcomed() const { return welcomed_; }
  // Writes a frame to the client; a failed write drops the client.
  [[nodiscard]] std::uint32_t Send(FrameHeader header, const void* payload, std::uint32_t size, DWORD timeoutMs);
  // Replies to request `sequence`; remembers that the running request was answered.
  [[nodiscard]] std::uint32_t Reply(std::uint32_t sequence, std::uint32_t messageId, std::uint32_t result,
                                    const void* payload, std::uint32_t size);

 private:
  void Run();
  void Drop();

  const std::uint32_t id_;
  PipeEnd end_;
  PipeServer& owner_;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> welcomed_{false};
  std::atomic<std::uint32_t> runningSequence_{0};
  std::atomic<bool> replied_{false};
};

class PipeServer final : public IConnPipeServer {
 public:
  explicit PipeServer(std::wstring name);
  ~PipeServer();  // Close()
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;

  // Creates the first pipe instance and starts listening; the pipe's creation error otherwise.
  [[nodiscard]] std::uint32_t Open();
  // Ends every thread of the pipe; idempotent.
  void Close();
  // Writes to every connected client; the last failing write's code.
  std::uint32_t Broadcast(std::uint32_t id, const void* payload, std::uint32_t size, DWORD timeoutMs);

  std::uint32_t Post(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t clientId) override;
  std::uint32_t ReplyError(const PipeMessage* request, std::uint32_t code) override;
  std::uint32_t ReplyData(const PipeMessage* request, std::uint32_t id, const void* payload, std::uint32_t size) override;
  std::uint32_t RegisterCallback(PipeCallback callback, void* context, std::uint32_t kind) override;
  std::uint32_t UnregisterCallback(std::uint32_t kind) override;

  const std::wstring& Path() const { return path_; }
  HANDLE StopEvent() const { return stop_.get(); }
  CallbackSlot& Callback() { return callback_; }
  void SessionEnded() { ::SetEvent(ended_.get()); }

 private:
  HANDLE CreateInstance(bool first);
  std::size_t LiveSessions();
  // Writes the refusal to the connected pending instance and closes it.
  void Refuse(std::size_t live);
  void Listen();
  void Reap(bool all);
  std::shared_ptr<Session> Find(std::uint32_t clientId);

  const std::wstring path_;
  ky::unique_local securityDescriptor_;
  ky::unique_handle stop_;
  ky::unique_handle ended_;
  ky::unique_file pending_;  // the instance waiting for the next client
  std::thread listener_;
  std::mutex sessionsLock_;
  std::vector<std::shared_ptr<Session>> sessions_;
  std::uint32_t nextClientId_ = 1;
  CallbackSlot callback_;
};

class ConnServer final : public IConnServer {
 public:
  ConnServer() = default;
  ~ConnServer();
  ConnServer(const ConnServer&) = delete;
  ConnServer& operator=(const ConnServer&) = delete;

  void* GetInterface(const GUID& iid) override;
  std::uint32_t CreatePipeServer(const wchar_t* name, std::uint32_t flags, IConnPipeServer** out) override;
  void ReleasePipeServer(IConnPipeServer* server) override;
  std::uint32_t Broadcast(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t reserved1,
                          std::uint32_t reserved2, std::uint32_t timeoutMs) override;

 private:
  std::mutex lock_;
  std::vector<std::shared_ptr<PipeServer>> pipes_;
};

// "\\.\pipe\" + name, or empty when the name is empty, too long or contains a backslash.
std::wstring PipePath(const wchar_t* name);

}  // namespace pipelink
