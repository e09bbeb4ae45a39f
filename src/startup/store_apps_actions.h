// MicrosoftStoreAppsActions (kind 2, Windows 8 and later): a Store startup task stays
// declared and its State is switched — Disable and Delay write 1, Enable writes 2 — with the
// change recorded in the backup store under the Store categories.
#pragma once

#include "startup/startup_item.h"

namespace startup {

inline constexpr char kCategoryStoreDisabled[] = "StoreDisabled";
inline constexpr char kCategoryStoreDelayed[] = "StoreDelayed";

class MicrosoftStoreAppsActions final : public IStartupAppsActions {
 public:
  [[nodiscard]] std::uint8_t Disable(const StartupItemList& items, bool updateStorage) override;
  [[nodiscard]] std::uint8_t Enable(const StartupItemList& items, bool updateStorage) override;
  [[nodiscard]] std::uint8_t Delay(const StartupItemList& items, bool updateStorage) override;
  // 0 when an installed package of the item's family still declares the task.
  [[nodiscard]] std::uint8_t Check(const StartupItem& item) override;

 private:
  std::uint8_t MarkDisabled(const StartupItemList& items, bool updateStorage, const char* category,
                            const wchar_t* function, const wchar_t* format);
};

}  // namespace startup
