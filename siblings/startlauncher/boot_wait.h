// Waiting for the module to finish measuring this boot, so that the entries the user delayed
// start after the boot's end and are never counted in it.
#pragma once

#include <windows.h>

#include <cstdint>

namespace startlauncher {

inline constexpr DWORD kDefaultBootWaitMs = 10 * 60 * 1000;
// Between two tries to reach a module that is not up yet.
inline constexpr DWORD kBootPollMs = 1000;
// A connected launcher learns the boot's end from the broadcast; it asks again this seldom only
// in case the broadcast went by, since each query is a line in the module's log.
inline constexpr DWORD kBootRequeryMs = 10000;

enum class BootWait {
  kMeasured,   // the module answered with this boot's time, or broadcast its analysis
  kNoResult,   // the module finished this boot without a time
  kTimedOut,   // no answer within the wait, or no module at all
};

// Asks "boottimepipe", through the module's own "boottimecommclient" loaded by full path from
// this program's folder, until this boot is measured or `waitMs` has passed: once on each
// connection, then on the broadcast, or every kBootRequeryMs. A module that is missing, starting
// or unreachable is tried again each kBootPollMs; never fails.
BootWait WaitForBootEnd(DWORD waitMs);

}  // namespace startlauncher
