#include "boottime/clock.h"

namespace boottime {

std::uint32_t SystemClock::TickCount() { return ::GetTickCount(); }

std::uint64_t SystemClock::WallClock() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  ULARGE_INTEGER value{};
  value.LowPart = now.dwLowDateTime;
  value.HighPart = now.dwHighDateTime;
  return value.QuadPart / 10000;
}

DWORD SystemClock::WaitForStop(HANDLE stopEvent, DWORD milliseconds) {
  return ::WaitForSingleObject(stopEvent, milliseconds);
}

SystemClock& SystemClock::Instance() {
  static SystemClock clock;
  return clock;
}

}  // namespace boottime
