#include "boottime/clock.h"

#include "common/module_library.h"

namespace boottime {

std::uint32_t SystemClock::TickCount() { return ::GetTickCount(); }

std::uint64_t SystemClock::WallClock() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return ky::FileTimeToU64(now) / 10000;
}

DWORD SystemClock::WaitForStop(HANDLE stopEvent, DWORD milliseconds) {
  return ::WaitForSingleObject(stopEvent, milliseconds);
}

SystemClock& SystemClock::Instance() {
  static SystemClock clock;
  return clock;
}

}  // namespace boottime
