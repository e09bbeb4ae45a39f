// "wmiprocessdp": notices processes that start and end by comparing the machine's process
// list every kPollMs, and tells the registered handlers on its own thread. The thread runs
// while at least one handler is registered.
#include <algorithm>
#include <mutex>
#include <thread>
#include <vector>

#include "common/guard.h"
#include "common/log.h"
#include "common/critical_section.h"
#include "common/unique_handle.h"
#include "host_plugin.h"
#include "thread_name.h"
#include "lumera/interface_ids.h"
#include "lumera/wmiprocessdp.h"
#include "wmiprocess_snapshot.h"

namespace host {
namespace {

// The boot-time monitor samples its processes once a second and a process's counters run from
// its start, so looking as often as it samples loses only processes too short to be sampled,
// and each look lists the whole machine.
constexpr DWORD kPollMs = 1000;

class WmiProcessDPPlugin final : public InterfacePlugin<IWMIProcessDP> {
 public:
  WmiProcessDPPlugin() : InterfacePlugin(lumera::ids::WmiProcessDPPlugin), stopEvent_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  ~WmiProcessDPPlugin() override { Shutdown(); }

  std::uint32_t RegisterEventsHandler(IWMIProcessDPEvents* handler) override {
    KY_TRACE(L"host::WmiProcessDPPlugin::RegisterEventsHandler");
    if (handler == nullptr) return ERROR_INVALID_DATA;
    return ky::Guarded(L"host::WmiProcessDPPlugin::RegisterEventsHandler", ky::kGeneralFailure, [&]() -> std::uint32_t {
      std::lock_guard lifecycle(lifecycleLock_);
      {
        std::lock_guard hold(handlersLock_);
        if (std::find(handlers_.begin(), handlers_.end(), handler) != handlers_.end()) return ERROR_ALREADY_EXISTS;
        handlers_.push_back(handler);
      }
      const std::uint32_t result = StartPoller();
      if (result != 0) {
        std::lock_guard hold(handlersLock_);
        handlers_.erase(std::find(handlers_.begin(), handlers_.end(), handler));
      }
      return result;
    });
  }

  std::uint32_t UnregisterEventsHandler(IWMIProcessDPEvents* handler) override {
    KY_TRACE(L"host::WmiProcessDPPlugin::UnregisterEventsHandler");
    if (handler == nullptr) return ERROR_INVALID_DATA;
    return ky::Guarded(L"host::WmiProcessDPPlugin::UnregisterEventsHandler", ky::kGeneralFailure, [&]() -> std::uint32_t {
      std::lock_guard lifecycle(lifecycleLock_);
      bool last = false;
      {
        std::lock_guard hold(handlersLock_);
        auto it = std::find(handlers_.begin(), handlers_.end(), handler);
        if (it == handlers_.end()) return ERROR_NOT_FOUND;
        handlers_.erase(it);
        last = handlers_.empty();
      }
      if (last) StopPoller();
      return 0;
    });
  }

  void Shutdown() override {
    std::lock_guard lifecycle(lifecycleLock_);
    StopPoller();
    std::lock_guard hold(handlersLock_);
    handlers_.clear();
  }

 private:
  // Caller holds lifecycleLock_. The first look is taken here, so that every process
  // started after registration is reported.
  std::uint32_t StartPoller() {
    if (running_) return 0;
    if (poller_.joinable()) poller_.join();  // a poller that stopped itself from a handler
    if (!stopEvent_) return ERROR_GEN_FAILURE;
    ProcessSnapshot first;
    SystemProcessList list;
    if (!TakeProcessSnapshot(list, first)) {
      logging::Write(logging::kLevelError, L"host::WmiProcessDPPlugin::StartPoller",
                     L"the process list could not be read 0x%x", ::GetLastError());
      return ERROR_GEN_FAILURE;
    }
    ::ResetEvent(stopEvent_.get());
    poller_ = std::thread([this, snapshot = std::move(first)]() mutable {
      NameThisThread(L"lumera-poller");
      Poll(std::move(snapshot));
    });
    running_ = true;
    return 0;
  }

  // Caller holds lifecycleLock_.
  void StopPoller() {
    if (!poller_.joinable()) return;
    ::SetEvent(stopEvent_.get());
    running_ = false;
    // From inside a handler the thread cannot wait for itself; it ends after the handler
    // returns and is joined by the next start or by Shutdown.
    if (poller_.get_id() != std::this_thread::get_id()) poller_.join();
  }

  void Poll(ProcessSnapshot before) {
    std::vector<std::uint32_t> started;
    std::vector<std::uint32_t> ended;
    SystemProcessList list;
    while (::WaitForSingleObject(stopEvent_.get(), kPollMs) == WAIT_TIMEOUT) {
      ProcessSnapshot now;
      if (!TakeProcessSnapshot(list, now)) continue;
      DiffSnapshots(before, now, started, ended);
      for (std::uint32_t pid : ended) Notify(before.at(pid), false);
      for (std::uint32_t pid : started) {
        ProcessEntry& entry = now.at(pid);
        // A process still without a name is announced once it has one, so it is left out of
        // this look and found new at the next.
        if (entry.name.empty()) {
          now.erase(pid);
          continue;
        }
        FillProcessDetails(entry);
        Notify(entry, true);
      }
      // Details already looked up are kept, so an ended process is reported with them.
      for (auto& [pid, entry] : now) {
        auto it = before.find(pid);
        if (!entry.detailed && it != before.end() && it->second.detailed && it->second.name == entry.name) {
          entry = it->second;
        }
      }
      before = std::move(now);
    }
  }

  void Notify(const ProcessEntry& entry, bool started) {
    WMIProcessInfo info;
    info.name = entry.name.empty() ? nullptr : entry.name.c_str();
    info.commandLine = entry.commandLine.empty() ? nullptr : entry.commandLine.c_str();
    info.imagePath = entry.imagePath.empty() ? nullptr : entry.imagePath.c_str();
    info.ppid = entry.ppid;
    info.pid = entry.pid;
    std::lock_guard hold(handlersLock_);
    const std::vector<IWMIProcessDPEvents*> handlers = handlers_;
    for (IWMIProcessDPEvents* handler : handlers) {
      if (::WaitForSingleObject(stopEvent_.get(), 0) == WAIT_OBJECT_0) return;
      // A handler may have unregistered another one during this round.
      if (std::find(handlers_.begin(), handlers_.end(), handler) == handlers_.end()) continue;
      if (started) {
        handler->OnProcessStarted(&info);
      } else {
        handler->OnProcessEnded(&info);
      }
    }
  }

  ky::unique_handle stopEvent_;
  std::mutex lifecycleLock_;
  ky::CriticalSection handlersLock_;  // re-entrant: a handler may unregister from its call
  std::vector<IWMIProcessDPEvents*> handlers_;
  std::thread poller_;
  bool running_ = false;
};

std::unique_ptr<HostPlugin> Make(HostContext&) { return std::make_unique<WmiProcessDPPlugin>(); }

}  // namespace
}  // namespace host

LUMERA_HOST_PLUGIN(L"wmiprocessdp", &host::Make);
