#include "startup/win8_actions.h"

#include <windows.h>

#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/registry_root.h"
#include "startup/run_key_apps.h"
#include "startup/win8_startup_item.h"

namespace startup {

CStartupAppsActions::Undo CWin8AppsActions::TakeOut(StartupItem& item, const wchar_t*&) {
  if (Win8StartupItem::Disable(item, kind_) != 0) return {};
  return [this, &item] { (void)Win8StartupItem::Enable(item, kind_); };
}

// Unlike the other kinds, an entry lacking a name, location or path is not passed over here.
bool CWin8AppsActions::PutBack(StartupItem& item, const wchar_t* function) {
  if (Win8StartupItem::Enable(item, kind_) == 0) return true;
  logging::Write(logging::kLevelError, function, L"Win8StartupItem::Enable FAILED %s", item.location.c_str());
  return false;
}

CWin8RunKeyAppsActions::CWin8RunKeyAppsActions()
    : CWin8AppsActions(kSourceRunKey, kCategoryDisabled, kCategoryDelayed, L"CWin8RunKeyAppsActions") {}

std::uint8_t CWin8RunKeyAppsActions::Check(const StartupItem& item) {
  KY_TRACE(L"CWin8RunKeyAppsActions::Check");
  HKEY root = nullptr;
  std::wstring subkey;
  if (!SplitRegistryLocation(item.location, root, subkey)) return kActionFailed;
  ky::unique_hkey key;
  if (::RegOpenKeyExW(root, subkey.c_str(), 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS) return kActionFailed;
  if (::RegQueryValueExW(key.get(), item.name.c_str(), nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
    return kActionFailed;
  }
  return CheckCommandTarget(item);
}

CWin8StartupFolderActions::CWin8StartupFolderActions()
    : CWin8AppsActions(kSourceStartupFolder, kCategoryStartupDisabled, kCategoryStartupDelayed,
                       L"CWin8StartupFolderActions") {}

std::uint8_t CWin8StartupFolderActions::Check(const StartupItem& item) {
  KY_TRACE(L"CWin8StartupFolderActions::Check");
  return CheckCommandTarget(item);
}

}  // namespace startup
