// Time and the stop event as the boot-time measurement sees them, so that tests can drive
// hours of virtual time instantly.
#pragma once

#include <windows.h>

#include <cstdint>

namespace boottime {

class IClock {
 public:
  virtual ~IClock() = default;
  // Milliseconds since the machine started (GetTickCount; wraps after 49.7 days).
  virtual std::uint32_t TickCount() = 0;
  // Milliseconds since 1601-01-01 UTC (GetSystemTimeAsFileTime / 10000).
  virtual std::uint64_t WallClock() = 0;
  // Waits up to `milliseconds` for `stopEvent`; returns what WaitForSingleObject returns
  // (WAIT_OBJECT_0 when the event is set, WAIT_TIMEOUT when the time ran out).
  virtual DWORD WaitForStop(HANDLE stopEvent, DWORD milliseconds) = 0;
};

class SystemClock final : public IClock {
 public:
  std::uint32_t TickCount() override;
  std::uint64_t WallClock() override;
  DWORD WaitForStop(HANDLE stopEvent, DWORD milliseconds) override;

  // The process-wide instance used where no other clock is injected.
  static SystemClock& Instance();
};

// When the machine started, in ms since 1601: the wall clock less the 32-bit tick count.
inline std::int64_t SystemStartTime(IClock& clock) {
  return static_cast<std::int64_t>(clock.WallClock()) - static_cast<std::int64_t>(clock.TickCount());
}

}  // namespace boottime
