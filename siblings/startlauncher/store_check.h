// The check StartLauncher.exe runs on one user's "Storage.json": every record whose entry
// no longer exists is dropped, with the same check the startup actions use.
#pragma once

#include <cstdint>
#include <string>

#include "startup/action_exec.h"

namespace startlauncher {

inline constexpr wchar_t kStoreRelativePath[] = L"Nexalon\\Lumera\\Storage.json";

struct CheckResult {
  bool storeRead = false;  // false: missing or unreadable, nothing was changed
  std::uint32_t kept = 0;
  std::uint32_t dropped = 0;
  std::uint32_t failedWrites = 0;
};

// Checks `appDataFolder`\Nexalon\Lumera\Storage.json with the action objects of `exec`.
CheckResult CheckUserStore(const std::wstring& appDataFolder, const startup::StartupAppsActionExec& exec);

}  // namespace startlauncher
