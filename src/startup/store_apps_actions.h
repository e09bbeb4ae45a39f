// MicrosoftStoreAppsActions (kind 2, Windows 8 and later): a Store startup task stays
// declared and its State is switched — Disable and Delay write 1, Enable writes 2 — with the
// change recorded in the backup store under the Store categories.
#pragma once

#include "startup/startup_apps_actions.h"

namespace startup {

inline constexpr char kCategoryStoreDisabled[] = "StoreDisabled";
inline constexpr char kCategoryStoreDelayed[] = "StoreDelayed";

class MicrosoftStoreAppsActions final : public CStartupAppsActions {
 public:
  MicrosoftStoreAppsActions()
      : CStartupAppsActions(L"MicrosoftStoreAppsActions", kCategoryStoreDisabled, kCategoryStoreDelayed) {}
  // 0 when an installed package of the item's family still declares the task.
  [[nodiscard]] std::uint8_t Check(const StartupItem& item) override;

 private:
  Undo TakeOut(StartupItem& item, const wchar_t*& failure) override;
  bool PutBack(StartupItem& item, const wchar_t* function) override;
};

}  // namespace startup
