// The "connclient" object and its connections: each connection has one reader thread that
// matches replies to waiting senders and runs the callback for everything else.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "callback_slot.h"
#include "common/unique_handle.h"
#include "lumera/pipelink.h"
#include "pipe_io.h"

namespace pipelink {

class PipeClient final : public IConnPipeClient {
 public:
  PipeClient();
  ~PipeClient();  // Stop()
  PipeClient(const PipeClient&) = delete;
  PipeClient& operator=(const PipeClient&) = delete;

  // Opens `path`, checks that its server runs as LocalSystem, waits for the server's welcome and
  // starts the reader; all within `timeoutMs`, and 995 as soon as `stop` (when not null) is set.
  [[nodiscard]] std::uint32_t Connect(const std::wstring& path, DWORD timeoutMs, HANDLE stop);

  std::uint32_t Send(std::uint32_t id, const void* payload, std::uint32_t size, PipeMessage** reply,
                            std::uint32_t flags, std::uint32_t timeoutMs) override;
  std::uint32_t Post(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t flags) override;
  void FreeReply(PipeMessage* reply) override;
  std::uint32_t RegisterCallback(PipeCallback callback, void* context, std::uint32_t kind) override;
  std::uint32_t UnregisterCallback(std::uint32_t kind) override;
  std::uint32_t Acknowledge(const PipeMessage* message, std::uint32_t status) override;
  std::uint32_t ReplyData(const PipeMessage* request, std::uint32_t id, const void* payload, std::uint32_t size) override;
  std::uint32_t Stop() override;
  std::uint32_t ClientId() override { return clientId_; }

 private:
  // Guarded by pendingLock_; a sender waits on pendingDone_ until `done`.
  struct Pending {
    bool done = false;
    PipeMessage* reply = nullptr;
    std::uint32_t error = 0;
  };

  void Run();
  void FailPending(std::uint32_t error);
  std::uint32_t Write(FrameHeader header, const void* payload, std::uint32_t size);
  std::uint32_t Reply(const PipeMessage* request, std::uint32_t id, std::uint32_t result, const void* payload,
                      std::uint32_t size);

  std::unique_ptr<PipeEnd> end_;
  ky::unique_handle stop_;
  std::thread reader_;
  std::uint32_t clientId_ = 0;
  std::atomic<std::uint32_t> nextSequence_{1};
  std::atomic<bool> broken_{true};
  // A slim lock and condition variable rather than an event per request: no kernel object
  // is made or waited on for a reply.
  SRWLOCK pendingLock_ = SRWLOCK_INIT;
  CONDITION_VARIABLE pendingDone_ = CONDITION_VARIABLE_INIT;
  std::map<std::uint32_t, Pending*> pending_;
  std::atomic<std::uint32_t> runningSequence_{0};
  std::atomic<bool> replied_{false};
  CallbackSlot callback_;
};

class ConnClient final : public IConnClient {
 public:
  ConnClient() = default;
  ~ConnClient();
  ConnClient(const ConnClient&) = delete;
  ConnClient& operator=(const ConnClient&) = delete;

  void* GetInterface(const GUID& iid) override;
  std::uint32_t Init(std::uint32_t flags) override;
  std::uint32_t Start() override;
  std::uint32_t Connect(const wchar_t* name, std::uint32_t reserved1, std::uint32_t reserved2, std::uint32_t timeoutMs,
                        IConnPipeClient** out) override;
  void Close(IConnPipeClient* connection) override;
  std::uint32_t Stop() override;
  std::uint32_t ConnectUntil(const wchar_t* name, HANDLE stopEvent, std::uint32_t timeoutMs,
                             IConnPipeClient** out) override;

 private:
  std::mutex lock_;
  bool initialised_ = false;
  bool started_ = false;
  std::vector<std::unique_ptr<PipeClient>> connections_;
};

}  // namespace pipelink
