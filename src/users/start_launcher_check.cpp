#include "users/start_launcher_check.h"

#include <windows.h>

#include "common/guard.h"
#include "common/log.h"
#include "common/unique_handle.h"
#include "common/module_library.h"
#include "users/user_logon.h"
#include "users/user_profile.h"

namespace {

constexpr DWORD kPrimaryTokenAccess =
    TOKEN_ASSIGN_PRIMARY | TOKEN_DUPLICATE | TOKEN_QUERY | TOKEN_ADJUST_DEFAULT | TOKEN_ADJUST_SESSIONID;

// A primary token for the captured user: 0 with `primary` set, or the failing call's code.
std::uint32_t UserPrimaryToken(ky::unique_handle& primary) {
  const auto profile = velora::utils::CUserProfile::Current();
  if (!profile || !profile->HasToken()) return ERROR_NO_TOKEN;
  ::SetLastError(0);
  if (!::DuplicateTokenEx(profile->Token(), kPrimaryTokenAccess, nullptr, SecurityImpersonation, TokenPrimary,
                          primary.put())) {
    return ky::LastErrorOr(ERROR_NO_TOKEN);
  }
  return 0;
}

}  // namespace

void CStartLauncherCheckExec::OnLogon(std::uint32_t, const wchar_t*) {}

void CStartLauncherCheckExec::OnLogoff(std::uint32_t, const wchar_t*) {
  ky::GuardedVoid(L"CStartLauncherCheckExec::OnLogoff", [&] { Run(); });
}

std::wstring CStartLauncherCheckExec::CommandLine(const std::wstring& appDataFolder) {
  std::wstring command = kProgram;
  if (appDataFolder.empty()) return command + kCheckCurrentUser;
  return command + L"\"" + kCheckUser + appDataFolder + L"\"";
}

void CStartLauncherCheckExec::Run() {
  KY_TRACE(L"CStartLauncherCheckExec::Run");
  // At logoff the tracker still holds the folder of the user logging off.
  std::wstring command = CommandLine(CUserLogon::Instance().AppDataFolder());
  const std::wstring program = ky::SiblingPath(kProgramFile);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  // The check rewrites the user's own store, so it runs with the user's primary token (a
  // process created while impersonating would still get the service's LocalSystem token),
  // from the module's folder by full path, and inherits none of the service's handles.
  ky::unique_handle token;
  std::uint32_t error = UserPrimaryToken(token);
  if (error == 0) {
    ::SetLastError(0);
    if (!::CreateProcessAsUserW(token.get(), program.c_str(), command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                                nullptr, nullptr, &startup, &process)) {
      error = ky::LastErrorOr(ERROR_FILE_NOT_FOUND);
    }
  }
  if (error != 0) {
    KY_LOG(logging::kLevelError, L"Process = '%s' could not be created. Error = %d", command.c_str(),
           static_cast<int>(error));
    return;
  }
  ky::unique_handle processHandle(process.hProcess);
  ky::unique_handle threadHandle(process.hThread);
  KY_LOG(logging::kLevelInfo, L"Process = '%s' created", command.c_str());
}
