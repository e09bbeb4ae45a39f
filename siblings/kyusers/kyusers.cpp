// kyusers.dll: the console user's name, domain and application-data folder, and
// impersonation of that user. The choices are documented in lumera/kyusers.h.
#include "lumera/kyusers.h"

#include <shlobj.h>
#include <wtsapi32.h>

#include <cwchar>
#include <string>

#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera_dev/staged_identity.h"

namespace {

constexpr DWORD kNoConsoleSession = 0xFFFFFFFF;

// Owns a buffer returned by WTSQuerySessionInformationW.
class WtsText {
 public:
  WtsText() = default;
  ~WtsText() {
    if (text_ != nullptr) ::WTSFreeMemory(text_);
  }
  WtsText(const WtsText&) = delete;
  WtsText& operator=(const WtsText&) = delete;
  LPWSTR* put() { return &text_; }
  std::wstring str() const { return text_ != nullptr ? std::wstring(text_) : std::wstring(); }

 private:
  LPWSTR text_ = nullptr;
};

std::wstring QuerySession(DWORD session, WTS_INFO_CLASS what) {
  if (session == kNoConsoleSession) return {};
  WtsText text;
  DWORD bytes = 0;
  if (!::WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, what, text.put(), &bytes)) return {};
  return text.str();
}

std::wstring ProcessUserName() {
  wchar_t name[kyusers::kUserNameChars] = {};
  DWORD chars = static_cast<DWORD>(std::size(name));
  return ::GetUserNameW(name, &chars) ? std::wstring(name) : std::wstring();
}

std::wstring ComputerName() {
  wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD chars = static_cast<DWORD>(std::size(name));
  return ::GetComputerNameW(name, &chars) ? std::wstring(name) : std::wstring();
}

struct ConsoleUser {
  DWORD session = kNoConsoleSession;
  std::wstring userName;  // empty: nobody at the console
  std::wstring domain;
};

// Only the console session names the user: a service's own account is never "the user".
ConsoleUser FindConsoleUser() {
  ConsoleUser user;
  user.session = ::WTSGetActiveConsoleSessionId();
  user.userName = QuerySession(user.session, WTSUserName);
  if (user.userName.empty()) return user;
  user.domain = QuerySession(user.session, WTSDomainName);
  if (user.domain.empty()) user.domain = ComputerName();
  return user;
}

// Local accounts compare without case, as Windows does.
bool ProcessRunsAs(const ConsoleUser& user) {
  if (user.userName.empty()) return false;
  const std::wstring own = ProcessUserName();
  return !own.empty() && _wcsicmp(own.c_str(), user.userName.c_str()) == 0;
}

template <std::size_t N>
void CopyField(wchar_t (&field)[N], const std::wstring& text) {
  const std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
  std::wmemcpy(field, text.data(), n);
  field[n] = L'\0';
}

template <class Record>
std::uint32_t FillBasic(Record* info, const ConsoleUser& user) {
  if (info == nullptr || info->size != sizeof(Record)) return ERROR_INVALID_DATA;
  const std::uint32_t size = info->size;
  *info = Record{};
  info->size = size;
  if (user.userName.empty()) return ERROR_NO_TOKEN;
  info->sessionId = user.session;
  CopyField(info->userName, user.userName);
  CopyField(info->domain, user.domain);
  return 0;
}

std::wstring AppDataFolderOf(const ConsoleUser& user) {
  wchar_t folder[MAX_PATH] = {};
  ky::unique_handle token;
  if (user.session != kNoConsoleSession && ::WTSQueryUserToken(user.session, token.put()) &&
      SUCCEEDED(::SHGetFolderPathW(nullptr, CSIDL_APPDATA, token.get(), SHGFP_TYPE_CURRENT, folder))) {
    return folder;
  }
  if (ProcessRunsAs(user) && ::SHGetSpecialFolderPathW(nullptr, folder, CSIDL_APPDATA, FALSE)) return folder;
  return {};
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  // Under Wine the development stand-ins answer this library's session, token and folder
  // calls for the staged console user; elsewhere nothing is installed.
  if (reason == DLL_PROCESS_ATTACH) lumera::dev::InstallStagedIdentity(instance);
  return TRUE;
}

extern "C" std::uint32_t WINAPI SrvGetCurrentUserInfoBasic(kyusers::UserInfoBasic* info) {
  try {
    return FillBasic(info, FindConsoleUser());
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

extern "C" std::uint32_t WINAPI SrvGetCurrentUserInfoAdvanced(kyusers::UserInfoAdvanced* info) {
  try {
    const ConsoleUser user = FindConsoleUser();
    const std::uint32_t result = FillBasic(info, user);
    if (result != 0) return result;
    CopyField(info->appDataFolder, AppDataFolderOf(user));
    return 0;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

extern "C" std::uint32_t WINAPI SrvImpersonateCurrentUser() {
  try {
    const ConsoleUser user = FindConsoleUser();
    if (user.userName.empty()) return ERROR_NO_TOKEN;
    ky::unique_handle token;
    ::SetLastError(0);
    if (user.session != kNoConsoleSession && ::WTSQueryUserToken(user.session, token.put())) {
      ::SetLastError(0);
      return ::ImpersonateLoggedOnUser(token.get()) ? 0 : ky::LastErrorOr(ERROR_CANNOT_IMPERSONATE);
    }
    const std::uint32_t error = ky::LastErrorOr(ERROR_NO_TOKEN);
    return ProcessRunsAs(user) ? 0 : error;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

extern "C" std::uint32_t WINAPI SrvRevertToSelf() {
  ::SetLastError(0);
  return ::RevertToSelf() ? 0 : ky::LastErrorOr(ERROR_GEN_FAILURE);
}
