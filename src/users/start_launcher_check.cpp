#include "users/start_launcher_check.h"

#include <windows.h>

#include "common/guard.h"
#include "common/log.h"
#include "common/unique_handle.h"
#include "users/user_logon.h"

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
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  // No application name: the bare file name is searched for, the host's folder first.
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                        &process)) {
    KY_LOG(logging::kLevelError, L"Process = '%s' could not be created. Error = %d", command.c_str(),
           static_cast<int>(::GetLastError()));
    return;
  }
  ky::unique_handle processHandle(process.hProcess);
  ky::unique_handle threadHandle(process.hThread);
  KY_LOG(logging::kLevelInfo, L"Process = '%s' created", command.c_str());
}
