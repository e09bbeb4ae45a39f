#include "users/user_logon.h"

#include <memory>
#include <mutex>

#include "common/guard.h"
#include "common/log.h"
#include "lumera/interface_ids.h"
#include "users/eq_work_item.h"
#include "users/ky_users.h"

namespace {

constexpr std::uint32_t kConsoleConnect = WTS_CONSOLE_CONNECT;    // 1
constexpr std::uint32_t kConsoleDisconnect = WTS_CONSOLE_DISCONNECT;  // 2
constexpr std::uint32_t kSessionLogon = WTS_SESSION_LOGON;        // 5
constexpr std::uint32_t kSessionLogoff = WTS_SESSION_LOGOFF;      // 6
// Bits 0 and 2 of (event - 1): events 1, 2, 5 and 6.
constexpr std::uint32_t kKeptEventBits = 0x5;

std::atomic<CUserLogon*> g_override{nullptr};

bool Present(const wchar_t* field) { return field[0] != L'\0'; }

}  // namespace

CUserLogon::CUserLogon() : api_(SessionInfoApi{}) {}

CUserLogon::CUserLogon(SessionInfoApi api) : api_(api) {}

CUserLogon::~CUserLogon() = default;

CUserLogon& CUserLogon::Instance() {
  if (CUserLogon* replacement = g_override.load()) return *replacement;
  static CUserLogon instance;
  return instance;
}

CUserLogon::ScopedOverride::ScopedOverride(CUserLogon& replacement) : previous_(g_override.exchange(&replacement)) {}

CUserLogon::ScopedOverride::~ScopedOverride() { g_override.store(previous_); }

int CUserLogon::Init(IServMain* servMain) {
  KY_TRACE(L"CUserLogon::Init");
  if (initCount_.fetch_add(1) > 0) return 1;
  servMain_ = servMain;
  if (servMain_ == nullptr) {
    KY_LOG(logging::kLevelError, L"failed");
    Uninit();
    return 0;
  }
  GetCurrentUser();
  return 1;
}

void CUserLogon::Uninit() {
  KY_TRACE(L"CUserLogon::Uninit");
  if (initCount_.fetch_sub(1) < 2) {
    std::lock_guard hold(lock_);
    userName_.clear();
    appDataFolder_.clear();
  }
}

bool CUserLogon::Start() {
  KY_TRACE(L"CUserLogon::Start");
  if (startCount_.fetch_add(1) > 0) return true;
  const bool started = ky::Guarded(L"CUserLogon::Start", false, [&] {
    if (servMain_ == nullptr) {
      KY_LOG(logging::kLevelError, L"ServMain NULL");
      return false;
    }
    IPlgComponentManager* manager = servMain_->GetComponentManager();
    if (manager == nullptr) {
      KY_LOG(logging::kLevelError, L"Component Manager is null!");
      return false;
    }
    if (sessionPlugin_.Acquire(manager, kPluginName, lumera::ids::SessionChangePlugin) != 0 || !sessionPlugin_) {
      KY_LOG(logging::kLevelError, L"Error getting plugin: %s", kPluginName);
      return false;
    }
    eventQueue_ = servMain_->GetEventQueue();
    ISerialExecution* execution = nullptr;
    const std::uint32_t created =
        eventQueue_ != nullptr ? eventQueue_->createSerialExecution(&execution) : ERROR_INVALID_HANDLE;
    if (created != 0 || execution == nullptr) {
      KY_LOG(logging::kLevelError, L"EventQueue createSerialExecution failed 0x%x", created);
      return false;
    }
    serialExecution_ = execution;
    (void)sessionPlugin_->RegisterEventsHandler(this);
    return true;
  });
  if (started) return true;
  KY_LOG(logging::kLevelError, L"failed");
  Stop();
  return false;
}

void CUserLogon::Stop() {
  KY_TRACE(L"CUserLogon::Stop");
  if (startCount_.fetch_sub(1) < 2) UndoStart();
}

void CUserLogon::UndoStart() {
  if (servMain_ == nullptr) return;
  // Unregistered before the serial execution goes, so no notification can post to it then.
  if (sessionPlugin_) {
    (void)sessionPlugin_->UnregisterEventsHandler(this);
    sessionPlugin_.Reset();
  }
  ISerialExecution* execution = serialExecution_.exchange(nullptr);
  if (eventQueue_ != nullptr && execution != nullptr) (void)eventQueue_->destroySerialExecution(execution);
}

bool CUserLogon::IsUserLogged() {
  KY_TRACE(L"CUserLogon::IsUserLogged");
  return ky::Guarded(L"CUserLogon::IsUserLogged", false, [&] {
    kyusers::UserInfoAdvanced info{};
    info.size = sizeof info;
    if (velora::utils::CKYUsers::Instance().GetCurrentUserInfoAdvanced(info) != 0) {
      KY_LOG(logging::kLevelError, L"SrvGetCurrentUserInfoAdvanced failed");
      return false;
    }
    if (!Present(info.userName)) {
      KY_LOG(logging::kLevelInfo, L"user empty");
      return false;
    }
    return true;
  });
}

std::uint32_t CUserLogon::OnSessionChange(std::uint32_t time, std::uint32_t event,
                                          WTSSESSION_NOTIFICATION* notification) {
  KY_TRACE(L"CUserLogon::OnSessionChange");
  return ky::Guarded(L"CUserLogon::OnSessionChange", ky::kGeneralFailure, [&]() -> std::uint32_t {
    KY_LOG(logging::kLevelInfo, L"time=%d event=%d", time, event);
    if (((event - 1) & ~kKeptEventBits) != 0 || event == kConsoleDisconnect || notification == nullptr) return 0;
    ISerialExecution* execution = serialExecution_.load();
    if (execution == nullptr) return ERROR_INVALID_HANDLE;
    // Only the size and the session id are copied: the host's buffer is not kept.
    auto copy = std::make_unique<WTSSESSION_NOTIFICATION>();
    copy->cbSize = notification->cbSize;
    copy->dwSessionId = notification->dwSessionId;
    auto item = std::make_unique<EqWorkItemMember3<CUserLogon, std::uint32_t, std::uint32_t, WTSSESSION_NOTIFICATION*>>(
        this, time, event, copy.get(), &CUserLogon::ProcessSessionChange);
    (void)copy.release();
    return execution->Post(kWorkItemName, item.release());
  });
}

bool CUserLogon::QuerySession(DWORD session, WTS_INFO_CLASS what, std::wstring& out, bool& empty) {
  LPWSTR buffer = nullptr;
  DWORD bytes = 0;
  ::SetLastError(0);
  if (!api_.query(WTS_CURRENT_SERVER_HANDLE, session, what, &buffer, &bytes)) return false;
  empty = buffer == nullptr || buffer[0] == L'\0';
  if (!empty) out = buffer;
  if (buffer != nullptr) api_.free(buffer);
  return true;
}

void CUserLogon::ProcessSessionChange(std::uint32_t time, std::uint32_t event, WTSSESSION_NOTIFICATION* notification) {
  KY_TRACE(L"CUserLogon::ProcessSessionChange");
  std::unique_ptr<WTSSESSION_NOTIFICATION> owned(notification);
  ky::GuardedVoid(L"CUserLogon::ProcessSessionChange", [&] {
    if (event == kSessionLogoff) {
      const std::wstring name = UserName();
      logonPending_ = 0;
      OnLogoff(time, name.c_str());
      return;
    }
    if (event == kConsoleConnect) {
      if (logonPending_ == 0) return;
      logonPending_ = 0;
    } else if (event != kSessionLogon) {
      return;
    }
    const DWORD session = owned != nullptr ? owned->dwSessionId : 0;
    std::wstring name;
    bool empty = false;
    if (!QuerySession(session, WTSUserName, name, empty)) {
      const DWORD error = ::GetLastError();
      KY_LOG(logging::kLevelError, L"WTSQuerySessionInformation WTSUserName failed 0x%x", error);
      if (error != 0) {
        if (event == kSessionLogon) logonPending_ = 1;
        return;
      }
    } else if (empty) {
      KY_LOG(logging::kLevelError, L"WTSQuerySessionInformation WTSUserName null or empty");
      if (event == kSessionLogon) logonPending_ = 1;
      return;
    } else {
      std::wstring domain;
      bool domainEmpty = false;
      // The domain's failures are logged in the user name's words, as they always were.
      if (!QuerySession(session, WTSDomainName, domain, domainEmpty)) {
        KY_LOG(logging::kLevelError, L"WTSQuerySessionInformation WTSUserName failed 0x%x", ::GetLastError());
      } else if (domainEmpty) {
        KY_LOG(logging::kLevelError, L"WTSQuerySessionInformation WTSUserName null or empty");
      } else {
        name = domain + L"\\" + name;
      }
    }
    {
      std::lock_guard hold(lock_);
      GetCurrentUserAppData();
      userName_ = name;
    }
    OnLogon(time, name.c_str());
  });
}

void CUserLogon::GetCurrentUser() {
  KY_TRACE(L"CUserLogon::GetCurrentUser");
  std::lock_guard hold(lock_);
  userName_.clear();
  appDataFolder_.clear();
  kyusers::UserInfoAdvanced info{};
  info.size = sizeof info;
  if (velora::utils::CKYUsers::Instance().GetCurrentUserInfoAdvanced(info) != 0) return;
  if (Present(info.userName)) {
    userName_ = Present(info.domain) ? std::wstring(info.domain) + L"\\" + info.userName : std::wstring(info.userName);
  }
  if (Present(info.appDataFolder)) appDataFolder_ = info.appDataFolder;
}

void CUserLogon::GetCurrentUserAppData() {
  KY_TRACE(L"CUserLogon::GetCurrentUserAppData");
  appDataFolder_.clear();
  kyusers::UserInfoAdvanced info{};
  info.size = sizeof info;
  if (velora::utils::CKYUsers::Instance().GetCurrentUserInfoAdvanced(info) == 0 && Present(info.appDataFolder)) {
    appDataFolder_ = info.appDataFolder;
  }
}

void CUserLogon::OnLogon(std::uint32_t time, const wchar_t* user) {
  KY_TRACE(L"CUserLogon::OnLogon");
  KY_LOG(logging::kLevelInfo, L"user=%s", user);
  observers_.ForEach([&](IUserLogonObserver* observer) { observer->OnLogon(time, user); });
}

void CUserLogon::OnLogoff(std::uint32_t time, const wchar_t* user) {
  KY_TRACE(L"CUserLogon::OnLogoff");
  KY_LOG(logging::kLevelInfo, L"user=%s", user);
  observers_.ForEach([&](IUserLogonObserver* observer) { observer->OnLogoff(time, user); });
}

std::uint32_t CUserLogon::RegisterObserver(IUserLogonObserver* observer) {
  KY_TRACE(L"CUserLogon::RegisterObserver");
  return observers_.Register(observer);
}

std::wstring CUserLogon::UserName() {
  std::lock_guard hold(lock_);
  return userName_;
}

std::wstring CUserLogon::AppDataFolder() {
  std::lock_guard hold(lock_);
  return appDataFolder_;
}
