#include "startup/action_exec.h"

#include <windows.h>

#include "common/log.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/win8_actions.h"

namespace startup {

bool StartupAppsActionExec::DetectWindows8OrGreater() {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  version.dwMajorVersion = 6;
  version.dwMinorVersion = 2;
  version.wServicePackMajor = 0;
  ULONGLONG mask = 0;
  mask = ::VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
  mask = ::VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
  mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
  return ::VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask) != FALSE;
}

StartupAppsActionExec::StartupAppsActionExec() : windows8OrGreater_(DetectWindows8OrGreater()) { Choose(); }

StartupAppsActionExec::StartupAppsActionExec(bool windows8OrGreater) : windows8OrGreater_(windows8OrGreater) {
  Choose();
}

void StartupAppsActionExec::Choose() {
  KY_TRACE(L"StartupAppsActionExec::StartupAppsActionExec");
  if (windows8OrGreater_) {
    KY_LOG(logging::kLevelInfo, L"Windows8OrGreater");
    Set(kSourceStartupFolder, std::make_unique<CWin8StartupFolderActions>());
    Set(kSourceRunKey, std::make_unique<CWin8RunKeyAppsActions>());
    KY_LOG(logging::kLevelWarning, L"no actions for Microsoft Store startup tasks");
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
