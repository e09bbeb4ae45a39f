#include "startup/action_exec.h"

#include <windows.h>

#include "common/log.h"
#include "common/windows_version.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/store_apps_actions.h"
#include "startup/win8_actions.h"

namespace startup {

StartupAppsActionExec::StartupAppsActionExec() : windows8OrGreater_(ky::IsWindows8OrGreater()) { Choose(); }

StartupAppsActionExec::StartupAppsActionExec(bool windows8OrGreater) : windows8OrGreater_(windows8OrGreater) {
  Choose();
}

void StartupAppsActionExec::Choose() {
  KY_TRACE(L"StartupAppsActionExec::StartupAppsActionExec");
  if (windows8OrGreater_) {
    KY_LOG(logging::kLevelInfo, L"Windows8OrGreater");
    Set(kSourceStartupFolder, std::make_unique<CWin8StartupFolderActions>());
    Set(kSourceRunKey, std::make_unique<CWin8RunKeyAppsActions>());
    Set(kSourceStoreApp, std::make_unique<MicrosoftStoreAppsActions>());
  } else {
    KY_LOG(logging::kLevelInfo, L"bellow Windows8");
    Set(kSourceStartupFolder, std::make_unique<CStartupFolderActions>(kBackupFolderName));
    Set(kSourceRunKey, std::make_unique<CRunKeyAppsActions>());
  }
}

IStartupAppsActions* StartupAppsActionExec::Find(StartupSourceKind kind) const {
  const auto it = actions_.find(kind);
  return it == actions_.end() ? nullptr : it->second.get();
}

void StartupAppsActionExec::Set(StartupSourceKind kind, std::unique_ptr<IStartupAppsActions> actions) {
  actions_[kind] = std::move(actions);
}

}  // namespace startup
