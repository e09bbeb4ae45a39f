// Virtual time in which each wait lets its time pass at once; `onWait` runs after the time
// has passed (to stage a logon, a new process or a boot event), and the wait numbered
// `stopAtWait` reports the stop event as set.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>

#include "boottime/clock.h"

namespace boottime::testing {

class StagedClock final : public IClock {
 public:
  std::uint32_t TickCount() override { return tick; }
  std::uint64_t WallClock() override { return 13'000'000'000'000ull + tick; }
  DWORD WaitForStop(HANDLE, DWORD milliseconds) override {
    if (++waits == stopAtWait) return WAIT_OBJECT_0;
    tick += milliseconds;
    if (onWait) onWait();
    return WAIT_TIMEOUT;
  }
  std::uint32_t tick = 0;
  int waits = 0;
  int stopAtWait = -1;
  std::function<void()> onWait;
};

}  // namespace boottime::testing
