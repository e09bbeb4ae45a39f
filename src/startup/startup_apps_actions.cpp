#include "startup/startup_apps_actions.h"

#include <string>

#include "common/log.h"
#include "startup/startup_storage.h"

namespace startup {

std::uint8_t CStartupAppsActions::SetAside(const StartupItemList& items, bool updateStorage, const char* category,
                                           const wchar_t* method, const wchar_t* format) {
  const std::wstring name = std::wstring(className_) + L"::" + method;
  logging::CTracer kyTrace_(name.c_str());
  std::uint8_t result = kActionOk;
  for (const StartupItemPtr& item : items) {
    KY_LOG(logging::kLevelInfo, format, item->location.c_str(), item->name.c_str());
    // An empty location would put a folder entry's backup folder at the root of the current drive.
    const wchar_t* failure = L"FAILED %s";
    if (item->Actionable()) {
      if (const Undo undo = TakeOut(*item, failure)) {
        if (!updateStorage || storage::CStartupItemsStorage::Instance().SaveStartupItem(item, category) == 0) continue;
        // An entry is never left out of the startup without a record of it.
        undo();
        failure = unsavedFormat_;
      }
    }
    if (failure != nullptr) KY_LOG(logging::kLevelError, failure, item->location.c_str());
    result = kActionFailed;
  }
  return result;
}

std::uint8_t CStartupAppsActions::Disable(const StartupItemList& items, bool updateStorage) {
  return SetAside(items, updateStorage, disabledCategory_, L"Disable", L"Disable %s %s");
}

std::uint8_t CStartupAppsActions::Delay(const StartupItemList& items, bool updateStorage) {
  return SetAside(items, updateStorage, delayedCategory_, L"Delay", L"Delay %s %s");
}

std::uint8_t CStartupAppsActions::Enable(const StartupItemList& items, bool updateStorage) {
  const std::wstring name = std::wstring(className_) + L"::Enable";
  logging::CTracer kyTrace_(name.c_str());
  std::uint8_t result = kActionOk;
  for (const StartupItemPtr& item : items) {
    KY_LOG(logging::kLevelInfo, L"Enable %s %s", item->location.c_str(), item->name.c_str());
    if (!PutBack(*item, kyTrace_.Name())) result = kActionFailed;
  }
  if (updateStorage) {
    auto& store = storage::CStartupItemsStorage::Instance();
    (void)store.RemoveStartupItems(items, disabledCategory_);
    (void)store.RemoveStartupItems(items, delayedCategory_);
  }
  return result;
}

}  // namespace startup
