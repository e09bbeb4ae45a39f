// A stand-in central component for tests: listens on "RemoteDispatcherPipe" through
// pipelink.dll, keeps every message that arrives, and posts app lists to the last client
// that spoke.
#pragma once

#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

#include "comm/pipelink_fixture.h"
#include "startup/central_messages.h"
#include "startup/startup_manager.h"
#include "support/test_thread.h"

namespace testing_report {

struct ReceivedMessage {
  std::uint32_t id = 0;
  std::string payload;  // the bytes as received, terminator included
};

class CentralServer {
 public:
  CentralServer() {
    if (library_.Ready()) (void)library_.Server()->CreatePipeServer(startup::kCentralPipeName, 0, &pipe_);
    if (pipe_ != nullptr) (void)pipe_->RegisterCallback(&CentralServer::Callback, this, pipelink::kCallbackMessages);
  }
  ~CentralServer() {
    if (pipe_ != nullptr) library_.Server()->ReleasePipeServer(pipe_);
  }
  CentralServer(const CentralServer&) = delete;
  CentralServer& operator=(const CentralServer&) = delete;

  bool Listening() const { return pipe_ != nullptr; }
  pipelink::IConnClient* Client() const { return library_.Client(); }

  // The first message with `id` (waiting up to `ms` for it), taken out of the inbox.
  bool Take(std::uint32_t id, ReceivedMessage& out, DWORD ms = testsupport::kLongWait) {
    const ULONGLONG deadline = ::GetTickCount64() + ms;
    for (;;) {
      {
        std::lock_guard<std::mutex> hold(lock_);
        for (auto it = inbox_.begin(); it != inbox_.end(); ++it) {
          if (it->id == id) {
            out = *it;
            inbox_.erase(it);
            return true;
          }
        }
      }
      const ULONGLONG now = ::GetTickCount64();
      if (now >= deadline || !arrived_.waitFor(static_cast<DWORD>(deadline - now))) return false;
      ::ResetEvent(arrived_.get());
    }
  }
  std::size_t Count(std::uint32_t id) {
    std::lock_guard<std::mutex> hold(lock_);
    std::size_t n = 0;
    for (const auto& message : inbox_) n += message.id == id ? 1 : 0;
    return n;
  }

  // Posts `bytes` as they are (no terminator added) to the client that spoke last.
  std::uint32_t PostAppList(const std::string& bytes) {
    return pipe_->Post(startup::kMsgAppList, bytes.data(), static_cast<std::uint32_t>(bytes.size()), lastClient_);
  }

 private:
  static std::uint32_t __cdecl Callback(void* context, const pipelink::PipeMessage* message) {
    auto* self = static_cast<CentralServer*>(context);
    {
      std::lock_guard<std::mutex> hold(self->lock_);
      self->lastClient_ = message->clientId;
      self->inbox_.push_back({message->id, std::string(reinterpret_cast<const char*>(message->payload), message->size)});
    }
    self->arrived_.set();
    return 0;
  }

  testing_pipelink::Library library_;
  pipelink::IConnPipeServer* pipe_ = nullptr;
  std::mutex lock_;
  std::vector<ReceivedMessage> inbox_;
  std::uint32_t lastClient_ = 0;
  testsupport::Event arrived_;
};

// A manager that keeps every app list it is given and reports a list set by the test.
class ListManager final : public startup::CBaseStartupManager {
 public:
  using CBaseStartupManager::CBaseStartupManager;
  ~ListManager() override { Uninit(); }
  void AppListReceived(const startup::AppList& list) override {
    std::lock_guard<std::mutex> hold(lock_);
    lists_.push_back(list);
    received_.set();
  }
  bool Init() override { return CBaseStartupManager::Init(); }
  std::uint32_t BuildAndReport() override { return SendReportToCentral(toReport); }

  // The next list given (waiting for it), or false.
  bool NextList(startup::AppList& list) {
    if (!received_.waitFor(testsupport::kLongWait)) return false;
    std::lock_guard<std::mutex> hold(lock_);
    list = lists_.front();
    lists_.erase(lists_.begin());
    if (lists_.empty()) ::ResetEvent(received_.get());
    return true;
  }

  startup::AppList toReport;

 private:
  std::mutex lock_;
  std::vector<startup::AppList> lists_;
  testsupport::Event received_;
};

}  // namespace testing_report
