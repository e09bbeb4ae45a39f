// StartLauncher.exe /delayed: the entries the user delayed start after the boot, in the user's
// own session and as the user, one at a time.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "boot_wait.h"
#include "startup/startup_item.h"

namespace startlauncher {

inline constexpr DWORD kDefaultGapMs = 5000;
// More delayed entries than any person keeps; a store holding more starts this many per run.
inline constexpr std::size_t kMaxStartsPerRun = 64;

struct DelayedOptions {
  DWORD waitMs = kDefaultBootWaitMs;
  DWORD gapMs = kDefaultGapMs;
};

// One delayed entry as the store holds it, with the section that holds it.
struct DelayedEntry {
  const char* category = nullptr;
  startup::StartupSourceKind kind = startup::kSourceRunKey;
  startup::StartupItemPtr item;
};

// The entries of the delayed sections, oldest delay first (store order among equal times).
std::vector<DelayedEntry> OldestFirst(std::vector<DelayedEntry> entries);

// Parses "--wait-ms N" and "--gap-ms N" after "/delayed"; false for anything else.
[[nodiscard]] bool ParseDelayedOptions(const std::vector<std::wstring>& args, DelayedOptions& options);

// Waits for the boot's end, then starts the console user's delayed entries. 0 when it is done
// (also when there was nothing to start, or another launcher of this logon is at work); 1 when
// the user's store cannot be found. An entry that fails to start is logged and passed over.
int RunDelayed(const DelayedOptions& options);

}  // namespace startlauncher
