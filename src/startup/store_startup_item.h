// The user's state of one Store startup task: the DWORD "State" under the package family's
// SystemAppData key, in the subkey named after the TaskId (the item's location and name).
#pragma once

#include <windows.h>

#include <cstdint>

#include "startup/startup_item.h"

namespace startup {

class MicrosoftStoreAppsEnumerator;

inline constexpr wchar_t kStoreStateValue[] = L"State";

// Windows' StartupTaskState values.
inline constexpr DWORD kStoreStateDisabled = 0;
inline constexpr DWORD kStoreStateDisabledByUser = 1;
inline constexpr DWORD kStoreStateEnabled = 2;
inline constexpr DWORD kStoreStateDisabledByPolicy = 3;
inline constexpr DWORD kStoreStateEnabledByPolicy = 4;

// What a task's State was before a change, so that a change can be taken back.
struct StoreStatePrior {
  bool present = false;
  DWORD state = 0;
};

class MicrosoftStoreStartupItem {
 public:
  // 0 with `state` set; ERROR_FILE_NOT_FOUND when the task has no State; 31 for a location
  // that is not a registry key, 13 for a State that is not a DWORD; otherwise the registry
  // error. `state` untouched on failure.
  [[nodiscard]] static std::uint32_t ReadState(const StartupItem& item, DWORD& state);

  // Whether the task starts: State 2 or 4; 0, 1 or 3 do not; without a State the manifest's
  // Enabled holds, looked up through `packages`. 0, or the error of reading (13 for a State
  // beyond 4, 1168 when no package declares the task any more), `enabled` untouched.
  [[nodiscard]] static std::uint32_t IsEnabled(const StartupItem& item, bool& enabled,
                                               MicrosoftStoreAppsEnumerator& packages);
  [[nodiscard]] static std::uint32_t IsEnabled(const StartupItem& item, bool& enabled);

  // Write State 1 (Disable) or 2 (Enable), creating the task's key; 0 without writing when it
  // already holds that value. A state set by policy (3, 4) is left alone: 31, logged. Otherwise
  // 0, 31 for a bad location, or the registry error. `prior` (if given) receives what stood
  // before, for Restore.
  [[nodiscard]] static std::uint32_t Disable(const StartupItem& item, StoreStatePrior* prior = nullptr);
  [[nodiscard]] static std::uint32_t Enable(const StartupItem& item, StoreStatePrior* prior = nullptr);

  // Puts back the State a change found (deleting it when there was none); 0 or the error.
  [[nodiscard]] static std::uint32_t Restore(const StartupItem& item, const StoreStatePrior& prior);

 private:
  static std::uint32_t SetState(const StartupItem& item, DWORD target, StoreStatePrior* prior,
                                const wchar_t* function);
};

}  // namespace startup
