// "sessionchange": tells registered handlers about session changes on a thread of its own,
// one at a time in the order they happened. As a service it delivers what the service
// control handler relays, and a staged console, which Wine cannot relay; in the console it
// compares the console session every kPollMs and reports console connect and disconnect
// (1, 2) and logon and logoff (5, 6), with the development switch of
// dev/lumera_dev/console_session.h standing in for a real logon under Wine.
#include "plugins/sessionchange.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/log.h"
#include "common/stop_wait.h"
#include "common/unique_handle.h"
#include "host_plugin.h"
#include "thread_name.h"
#include "lumera_dev/console_session.h"
#include "lumera/interface_ids.h"
#include "lumera/sessionchange.h"

namespace host {
namespace {

constexpr DWORD kPollMs = 250;
constexpr DWORD kNoSession = 0xFFFFFFFF;
constexpr std::uint32_t kConsoleConnect = WTS_CONSOLE_CONNECT;
constexpr std::uint32_t kConsoleDisconnect = WTS_CONSOLE_DISCONNECT;
constexpr std::uint32_t kSessionLogon = WTS_SESSION_LOGON;
constexpr std::uint32_t kSessionLogoff = WTS_SESSION_LOGOFF;

struct Change {
  std::uint32_t time;
  std::uint32_t event;
  DWORD session;
};

std::atomic<bool> g_fromService{false};
class SessionChangePlugin;
std::mutex g_liveLock;
SessionChangePlugin* g_live = nullptr;

bool ConsoleUserPresent(DWORD session) {
  switch (lumera::dev::StagedConsoleSession()) {
    case lumera::dev::ConsoleSession::kLoggedOff:
      return false;
    case lumera::dev::ConsoleSession::kLoggedOn:
      return true;
    case lumera::dev::ConsoleSession::kNotStaged:
      break;
  }
  if (session == kNoSession) return false;
  LPWSTR name = nullptr;
  DWORD bytes = 0;
  if (!::WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, WTSUserName, &name, &bytes)) return false;
  const bool present = name != nullptr && name[0] != L'\0';
  if (name != nullptr) ::WTSFreeMemory(name);
  return present;
}

class SessionChangePlugin final : public InterfacePlugin<ISessionChangePlugin> {
 public:
  SessionChangePlugin()
      : InterfacePlugin(lumera::ids::SessionChangePlugin),
        stopEvent_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)), wakeEvent_(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    std::lock_guard hold(g_liveLock);
    g_live = this;
  }
  ~SessionChangePlugin() override { Shutdown(); }

  std::uint32_t RegisterEventsHandler(ISessionChangeEvents* handler) override {
    KY_TRACE(L"host::SessionChangePlugin::RegisterEventsHandler");
    if (handler == nullptr) return ERROR_INVALID_DATA;
    try {
      std::lock_guard lifecycle(lifecycleLock_);
      {
        std::lock_guard hold(handlersLock_);
        if (std::find(handlers_.begin(), handlers_.end(), handler) != handlers_.end()) return ERROR_ALREADY_EXISTS;
        handlers_.push_back(handler);
      }
      if (!worker_.joinable()) {
        if (!stopEvent_ || !wakeEvent_) return ERROR_GEN_FAILURE;
        // The first look is taken here, so that every change after registration is reported.
        const DWORD session = ::WTSGetActiveConsoleSessionId();
        const bool present = ConsoleUserPresent(session);
        worker_ = std::thread([this, session, present] {
          NameThisThread(L"lumera-session");
          Run(session, present);
        });
      }
      return 0;
    } catch (...) {
      return ERROR_GEN_FAILURE;
    }
  }

  std::uint32_t UnregisterEventsHandler(ISessionChangeEvents* handler) override {
    KY_TRACE(L"host::SessionChangePlugin::UnregisterEventsHandler");
    if (handler == nullptr) return ERROR_INVALID_DATA;
    std::lock_guard hold(handlersLock_);
    auto it = std::find(handlers_.begin(), handlers_.end(), handler);
    if (it == handlers_.end()) return ERROR_NOT_FOUND;
    handlers_.erase(it);
    return 0;
  }

  void Shutdown() override {
    {
      std::lock_guard hold(g_liveLock);
      if (g_live == this) g_live = nullptr;
    }
    std::lock_guard lifecycle(lifecycleLock_);
    if (worker_.joinable()) {
      ::SetEvent(stopEvent_.get());
      worker_.join();
    }
    std::lock_guard hold(handlersLock_);
    handlers_.clear();
  }

  void Post(const Change& change) {
    {
      std::lock_guard hold(queueLock_);
      queue_.push_back(change);
    }
    ::SetEvent(wakeEvent_.get());
  }

 private:
  void Run(DWORD session, bool present) {
    const HANDLE waits[] = {stopEvent_.get(), wakeEvent_.get()};
    for (;;) {
      const DWORD woke = ::WaitForMultipleObjects(2, waits, FALSE, kPollMs);
      if (woke != WAIT_TIMEOUT && woke != WAIT_OBJECT_0 + 1) return;
      // Wine never relays a session change to a service, so a staged console is followed there too.
      if (!g_fromService || lumera::dev::StagedConsoleSession() != lumera::dev::ConsoleSession::kNotStaged) {
        Follow(session, present);
      }
      Deliver();
    }
  }

  // Compares the console session with the last look and queues what changed.
  void Follow(DWORD& session, bool& present) {
    const DWORD now = ::WTSGetActiveConsoleSessionId();
    const bool nowPresent = ConsoleUserPresent(now);
    const std::uint32_t tick = ::GetTickCount();
    if (now != session) {
      if (session != kNoSession) Post({tick, kConsoleDisconnect, session});
      if (now != kNoSession) Post({tick, kConsoleConnect, now});
    }
    if (nowPresent != present) Post({tick, nowPresent ? kSessionLogon : kSessionLogoff, now});
    session = now;
    present = nowPresent;
  }

  void Deliver() {
    for (;;) {
      Change change{};
      {
        std::lock_guard hold(queueLock_);
        if (queue_.empty()) return;
        change = queue_.front();
        queue_.pop_front();
      }
      logging::Write(logging::kLevelInfo, L"host::SessionChangePlugin::Deliver", L"event %d session %d", change.event,
                     change.session);
      WTSSESSION_NOTIFICATION notification{sizeof notification, change.session};
      std::lock_guard hold(handlersLock_);
      const std::vector<ISessionChangeEvents*> handlers = handlers_;
      for (ISessionChangeEvents* handler : handlers) {
        if (::WaitForSingleObject(stopEvent_.get(), 0) == WAIT_OBJECT_0) return;
        // A handler may have unregistered another one during this round.
        if (std::find(handlers_.begin(), handlers_.end(), handler) == handlers_.end()) continue;
        (void)handler->OnSessionChange(change.time, change.event, &notification);
      }
    }
  }

  ky::unique_handle stopEvent_;
  ky::unique_handle wakeEvent_;
  std::mutex lifecycleLock_;
  ky::CriticalSection handlersLock_;  // re-entrant: a handler may unregister from its call
  std::vector<ISessionChangeEvents*> handlers_;
  std::mutex queueLock_;
  std::deque<Change> queue_;
  std::thread worker_;
};

std::unique_ptr<HostPlugin> Make(HostContext&) { return std::make_unique<SessionChangePlugin>(); }

}  // namespace

void SetSessionChangesFromService(bool fromService) { g_fromService = fromService; }

void RelaySessionChange(DWORD event, const WTSSESSION_NOTIFICATION* notification) {
  std::lock_guard hold(g_liveLock);
  if (g_live == nullptr) return;
  g_live->Post({::GetTickCount(), event, notification != nullptr ? notification->dwSessionId : kNoSession});
}

}  // namespace host

LUMERA_HOST_PLUGIN(L"sessionchange", &host::Make);
