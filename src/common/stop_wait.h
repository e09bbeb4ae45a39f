// Waits on a stop event where every outcome but a time-out means "stop": a wait that fails
// (a null or closed event, WAIT_FAILED) or is abandoned must end a loop, never spin it.
#pragma once

#include <windows.h>

namespace ky {

// True when a wait that returned `waitResult` must end the waiting loop.
[[nodiscard]] constexpr bool WaitMeansStop(DWORD waitResult) noexcept { return waitResult != WAIT_TIMEOUT; }

// Waits up to `milliseconds` for `stopEvent`; true when the caller must stop.
[[nodiscard]] inline bool WaitForStop(HANDLE stopEvent, DWORD milliseconds) noexcept {
  return WaitMeansStop(::WaitForSingleObject(stopEvent, milliseconds));
}

}  // namespace ky
