// Waiting for the module to finish measuring this boot, so that the entries the user delayed
// start after the boot's end and are never counted in it.
#pragma once

#include <windows.h>

#include <cstdint>

namespace startlauncher {

inline constexpr DWORD kDefaultBootWaitMs = 10 * 60 * 1000;
// Between two boot-time queries, and between two tries to reach a module that is not up yet.
inline constexpr DWORD kBootPollMs = 1000;

enum class BootWait {
  kMeasured,   // the module answered with this boot's time, or broadcast its analysis
  kNoResult,   // the module finished this boot without a time
  kTimedOut,   // no answer within the wait, or no module at all
};

// Asks "boottimepipe", through the module's own "boottimecommclient" loaded by full path from
// this program's folder, until this boot is measured or `waitMs` has passed. A module that is
// missing, starting or unreachable is tried again each kBootPollMs; never fails.
BootWait WaitForBootEnd(DWORD waitMs);

}  // namespace startlauncher
