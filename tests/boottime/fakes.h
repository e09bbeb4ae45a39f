// Virtual time and scripted process counters for the boot-time measurement tests.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "boottime/boot_time_disk_performance.h"
#include "boottime/clock.h"
#include "boottime/process_counters_source.h"
#include "support/captured_log.h"
#include "support/plugin_stub.h"

namespace boottime::testing {

// Each wait lets the time waited for pass at once, unless it is the scripted wait at which
// the stop event is "set"; `onWait` runs after the time has passed (to stage a logon, a new
// process or a boot event).
class FakeClock final : public IClock {
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

struct ScriptedCounters {
  std::uint32_t kernelMs = 0;
  std::uint32_t userMs = 0;
  std::uint64_t read = 0;
  std::uint64_t write = 0;
  std::uint64_t other = 0;
};

inline FILETIME ToFileTime(std::uint64_t value) {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

// Per handle, a function of the read number (0, 1, 2, ...) gives the counters; a handle
// without a script fails like a closed one. System idle time is a function of the tick.
class FakeCounters final : public IProcessCountersSource {
 public:
  using Script = std::function<ScriptedCounters(int read)>;

  explicit FakeCounters(const FakeClock* clock = nullptr) : clock_(clock) {}

  bool GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user) override {
    auto it = scripts.find(process);
    if (it == scripts.end()) {
      ::SetLastError(ERROR_INVALID_HANDLE);
      return false;
    }
    const ScriptedCounters c = it->second(reads[process]);
    *creation = ToFileTime(0);
    *exit = ToFileTime(0);
    *kernel = ToFileTime(std::uint64_t{c.kernelMs} * 10000);
    *user = ToFileTime(std::uint64_t{c.userMs} * 10000);
    return true;
  }
  bool GetProcessIoCounters(HANDLE process, IO_COUNTERS* counters) override {
    auto it = scripts.find(process);
    if (it == scripts.end() || ioFails) {
      ::SetLastError(ERROR_INVALID_HANDLE);
      return false;
    }
    const ScriptedCounters c = it->second(reads[process]++);
    *counters = IO_COUNTERS{};
    counters->ReadTransferCount = c.read;
    counters->WriteTransferCount = c.write;
    counters->OtherTransferCount = c.other;
    return true;
  }
  bool GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) override {
    if (systemTimesFail) {
      ::SetLastError(ERROR_ACCESS_DENIED);
      return false;
    }
    const std::uint64_t idle100ns = idleAt ? idleAt(clock_ != nullptr ? clock_->tick : 0) : 0;
    *idle = ToFileTime(idle100ns);
    *kernel = ToFileTime(idle100ns);
    *user = ToFileTime(0);
    return true;
  }
  std::uint32_t NumberOfProcessors() override { return processors; }

  std::map<HANDLE, Script> scripts;
  std::map<HANDLE, int> reads;
  bool ioFails = false;
  bool systemTimesFail = false;
  std::uint32_t processors = 4;
  std::function<std::uint64_t(std::uint32_t tick)> idleAt;

 private:
  const FakeClock* clock_;
};

// Whether the log has a message under boottime::`function` with exactly `text`.
inline bool Logged(const testsupport::CapturedLog& log, const std::wstring& function, std::wstring_view text) {
  return log.countUnder(L"boottime::" + function, text) > 0;
}

// A "LoadUsage" plug-in answering `code`, or else the scripted figures in turn (the last one
// repeats), and noting each question with the tick it came at.
class FakeLoadUsage final : public testsupport::PluginStub<ILoadUsage> {
 public:
  std::uint32_t GetCurrentUsage(std::uint32_t, double*) override { return ERROR_NOT_SUPPORTED; }
  std::uint32_t GetUsage(std::uint32_t kind, lumera::LoadUsageFigures* figures) override {
    kinds.push_back(kind);
    askedAtTick.push_back(clock != nullptr ? clock->tick : 0);
    if (code != 0) return code;
    *figures = answers[std::min(answers.size(), kinds.size()) - 1];
    return 0;
  }

  const FakeClock* clock = nullptr;
  std::uint32_t code = 0;
  std::vector<lumera::LoadUsageFigures> answers{{10, 50, 20, 60, 60}, {20, 70, 40, 60, 60}};
  std::vector<std::uint32_t> kinds;
  std::vector<std::uint32_t> askedAtTick;
};

}  // namespace boottime::testing
