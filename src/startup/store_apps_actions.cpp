#include "startup/store_apps_actions.h"

#include "common/log.h"
#include "startup/store_apps_enumerator.h"
#include "startup/store_startup_item.h"

namespace startup {

CStartupAppsActions::Undo MicrosoftStoreAppsActions::TakeOut(StartupItem& item, const wchar_t*&) {
  StoreStatePrior prior;
  if (MicrosoftStoreStartupItem::Disable(item, &prior) != 0) return {};
  return [&item, prior] { (void)MicrosoftStoreStartupItem::Restore(item, prior); };
}

bool MicrosoftStoreAppsActions::PutBack(StartupItem& item, const wchar_t* function) {
  if (!item.Actionable() || MicrosoftStoreStartupItem::Enable(item) == 0) return true;
  logging::Write(logging::kLevelError, function, L"MicrosoftStoreStartupItem::Enable FAILED %s", item.location.c_str());
  return false;
}

std::uint8_t MicrosoftStoreAppsActions::Check(const StartupItem& item) {
  KY_TRACE(L"MicrosoftStoreAppsActions::Check");
  MicrosoftStoreAppsEnumerator packages(SidOfLocation(item.location));
  MicrosoftStoreTask task;
  return packages.FindTask(item, task) == 0 ? kActionOk : kActionFailed;
}

}  // namespace startup
