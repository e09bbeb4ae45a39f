// CStartLauncherCheckExec: at each logoff starts "StartLauncher.exe" to check the backup store
// of the user logging off (or, when no folder is known, of the console user), without
// waiting for it.
#pragma once

#include <cstdint>
#include <string>

#include "lumera/sessionchange.h"

class CStartLauncherCheckExec final : public IUserLogonObserver {
 public:
  static constexpr wchar_t kProgram[] = L"StartLauncher.exe ";
  static constexpr wchar_t kProgramFile[] = L"StartLauncher.exe";
  static constexpr wchar_t kCheckUser[] = L"/checkuser:";
  static constexpr wchar_t kCheckCurrentUser[] = L"/checkcrtuser";

  // Deliberately nothing: only a logoff is checked.
  void OnLogon(std::uint32_t time, const wchar_t* user) override;
  void OnLogoff(std::uint32_t time, const wchar_t* user) override;

  // Starts the check for the logon tracker's application-data folder, from the module's own
  // folder, as the user CUserProfile captured; failures (ERROR_NO_TOKEN without a user
  // token) are logged.
  void Run();
  // The command line for `appDataFolder` (empty: the console user).
  static std::wstring CommandLine(const std::wstring& appDataFolder);
};
