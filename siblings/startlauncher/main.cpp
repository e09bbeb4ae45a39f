// StartLauncher.exe: drops the records of a user's backup store of startup entries whose
// entries no longer exist. Started by the module at each logoff.
//
//   StartLauncher.exe /checkuser:<application-data folder>
//   StartLauncher.exe /checkcrtuser        the console user's folder, from kyusers.dll
//   StartLauncher.exe /delayed [--wait-ms N] [--gap-ms N]
//                                          at logon, in the user's session: after the boot's
//                                          end, starts the entries the user delayed
//
// Exit codes: 0 when the check ran or there was nothing to check (a missing or unreadable
// store changes nothing), 1 when the store could not be written, 2 for a bad command line.
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/log.h"
#include "common/unique_handle.h"
#include "lumera_dev/console_user_main.h"
#include "delayed_start.h"
#include "store_check.h"
#include "users/ky_users.h"

namespace {

constexpr wchar_t kCheckUser[] = L"/checkuser:";
constexpr wchar_t kCheckCurrentUser[] = L"/checkcrtuser";
constexpr wchar_t kDelayed[] = L"/delayed";
constexpr std::size_t kMaxFolderChars = MAX_PATH;

int Usage() {
  std::fputs("usage: StartLauncher.exe /checkuser:<folder> | /checkcrtuser | /delayed [--wait-ms N] [--gap-ms N]\n", stderr);
  return 2;
}

int Check(const std::wstring& folder) {
  startup::StartupAppsActionExec exec;
  const startlauncher::CheckResult result = startlauncher::CheckUserStore(folder, exec);
  return result.failedWrites == 0 ? 0 : 1;
}

int CheckCurrentUser() {
  KY_TRACE(L"startlauncher::CheckCurrentUser");
  auto& users = velora::utils::CKYUsers::Instance();
  kyusers::UserInfoAdvanced info{};
  info.size = sizeof info;
  const std::uint32_t result = users.ReloadDll() ? users.GetCurrentUserInfoAdvanced(info) : velora::utils::kErrorUsersNotLoaded;
  if (result != 0 || info.appDataFolder[0] == L'\0') {
    KY_LOG(logging::kLevelInfo, L"no console user folder to check 0x%x", result);
    return 0;
  }
  return Check(info.appDataFolder);
}

int Run(const std::vector<std::wstring>& args) {
  if (args.size() >= 2 && args[1] == kDelayed) {
    startlauncher::DelayedOptions options;
    return startlauncher::ParseDelayedOptions(args, options) ? startlauncher::RunDelayed(options) : Usage();
  }
  if (args.size() != 2) return Usage();
  const std::wstring& option = args[1];
  if (option == kCheckCurrentUser) return CheckCurrentUser();
  const std::wstring prefix = kCheckUser;
  if (option.compare(0, prefix.size(), prefix) != 0) return Usage();
  std::wstring folder = option.substr(prefix.size());
  // A quoted folder ending in a backslash reaches us with the closing quote kept, as the
  // command-line rules escape it; no path holds a quote.
  while (!folder.empty() && folder.back() == L'"') folder.pop_back();
  if (folder.empty() || folder.size() > kMaxFolderChars) return Usage();
  return Check(folder);
}

}  // namespace

int main() { return lumera::dev::ConsoleUserMain("StartLauncher", Run, Usage, 1); }
