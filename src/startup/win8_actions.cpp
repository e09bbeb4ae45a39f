#include "startup/win8_actions.h"

#include <windows.h>

#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/registry_root.h"
#include "startup/run_key_apps.h"
#include "startup/startup_storage.h"
#include "startup/win8_startup_item.h"

namespace startup {
namespace {

// The tracer name of a method, "Class::Method", built once per call.
std::wstring Qualified(const wchar_t* className, const wchar_t* method) {
  return std::wstring(className) + L"::" + method;
}

}  // namespace

std::uint8_t CWin8AppsActions::MarkDisabled(const StartupItemList& items, bool updateStorage, const char* category,
                                            const wchar_t* function, const wchar_t* format) {
  std::uint8_t result = kActionOk;
  for (const StartupItemPtr& item : items) {
    logging::Write(logging::kLevelInfo, function, format, item->location.c_str(), item->name.c_str());
    if (item->Actionable() && Win8StartupItem::Disable(*item, kind_) == 0) {
      if (!updateStorage) continue;
      if (storage::CStartupItemsStorage::Instance().SaveStartupItem(item, category) == 0) continue;
      // The state goes back so the entry is never disabled without a record of it.
      (void)Win8StartupItem::Enable(*item, kind_);
    }
    logging::Write(logging::kLevelError, function, L"FAILED %s", item->location.c_str());
    result = kActionFailed;
  }
  return result;
}

std::uint8_t CWin8AppsActions::Disable(const StartupItemList& items, bool updateStorage) {
  const std::wstring name = Qualified(className_, L"Disable");
  logging::CTracer kyTrace_(name.c_str());
  return MarkDisabled(items, updateStorage, disabledCategory_, kyTrace_.Name(), L"Disable %s %s");
}

std::uint8_t CWin8AppsActions::Delay(const StartupItemList& items, bool updateStorage) {
  const std::wstring name = Qualified(className_, L"Delay");
  logging::CTracer kyTrace_(name.c_str());
  return MarkDisabled(items, updateStorage, delayedCategory_, kyTrace_.Name(), L"Delay %s %s");
}

std::uint8_t CWin8AppsActions::Enable(const StartupItemList& items, bool updateStorage) {
  const std::wstring name = Qualified(className_, L"Enable");
  logging::CTracer kyTrace_(name.c_str());
  std::uint8_t result = kActionOk;
  for (const StartupItemPtr& item : items) {
    KY_LOG(logging::kLevelInfo, L"Enable %s %s", item->location.c_str(), item->name.c_str());
    if (Win8StartupItem::Enable(*item, kind_) != 0) {
      KY_LOG(logging::kLevelError, L"Win8StartupItem::Enable FAILED %s", item->location.c_str());
      result = kActionFailed;
    }
  }
  if (updateStorage) {
    auto& store = storage::CStartupItemsStorage::Instance();
    (void)store.RemoveStartupItems(items, disabledCategory_);
    (void)store.RemoveStartupItems(items, delayedCategory_);
  }
  return result;
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
