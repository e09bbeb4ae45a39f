#include "startup/store_apps_actions.h"

#include "common/log.h"
#include "startup/startup_storage.h"
#include "startup/store_apps_enumerator.h"
#include "startup/store_startup_item.h"

namespace startup {

std::uint8_t MicrosoftStoreAppsActions::MarkDisabled(const StartupItemList& items, bool updateStorage,
                                                     const char* category, const wchar_t* function,
                                                     const wchar_t* format) {
  std::uint8_t result = kActionOk;
  for (const StartupItemPtr& item : items) {
    logging::Write(logging::kLevelInfo, function, format, item->location.c_str(), item->name.c_str());
    StoreStatePrior prior;
    if (item->Actionable() && MicrosoftStoreStartupItem::Disable(*item, &prior) == 0) {
      if (!updateStorage) continue;
      if (storage::CStartupItemsStorage::Instance().SaveStartupItem(item, category) == 0) continue;
      // The State goes back so the task is never disabled without a record of it.
      (void)MicrosoftStoreStartupItem::Restore(*item, prior);
    }
    logging::Write(logging::kLevelError, function, L"FAILED %s", item->location.c_str());
    result = kActionFailed;
  }
  return result;
}

std::uint8_t MicrosoftStoreAppsActions::Disable(const StartupItemList& items, bool updateStorage) {
  KY_TRACE(L"MicrosoftStoreAppsActions::Disable");
  return MarkDisabled(items, updateStorage, kCategoryStoreDisabled, kyTrace_.Name(), L"Disable %s %s");
}

std::uint8_t MicrosoftStoreAppsActions::Delay(const StartupItemList& items, bool updateStorage) {
  KY_TRACE(L"MicrosoftStoreAppsActions::Delay");
  return MarkDisabled(items, updateStorage, kCategoryStoreDelayed, kyTrace_.Name(), L"Delay %s %s");
}

std::uint8_t MicrosoftStoreAppsActions::Enable(const StartupItemList& items, bool updateStorage) {
  KY_TRACE(L"MicrosoftStoreAppsActions::Enable");
  std::uint8_t result = kActionOk;
  for (const StartupItemPtr& item : items) {
    KY_LOG(logging::kLevelInfo, L"Enable %s %s", item->location.c_str(), item->name.c_str());
    if (!item->Actionable()) continue;
    if (MicrosoftStoreStartupItem::Enable(*item) != 0) {
      KY_LOG(logging::kLevelError, L"MicrosoftStoreStartupItem::Enable FAILED %s", item->location.c_str());
      result = kActionFailed;
    }
  }
  if (updateStorage) {
    auto& store = storage::CStartupItemsStorage::Instance();
    (void)store.RemoveStartupItems(items, kCategoryStoreDisabled);
    (void)store.RemoveStartupItems(items, kCategoryStoreDelayed);
  }
  return result;
}

std::uint8_t MicrosoftStoreAppsActions::Check(const StartupItem& item) {
  KY_TRACE(L"MicrosoftStoreAppsActions::Check");
  MicrosoftStoreAppsEnumerator packages(SidOfLocation(item.location));
  MicrosoftStoreTask task;
  return packages.FindTask(item, task) == 0 ? kActionOk : kActionFailed;
}

}  // namespace startup
