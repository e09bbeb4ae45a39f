// Where the boot-time measurement reads process counters and system times: the system in
// production, a scripted source in tests (Wine's per-process counters are constants).
#pragma once

#include <windows.h>

#include <cstdint>

namespace boottime {

class IProcessCountersSource {
 public:
  virtual ~IProcessCountersSource() = default;
  // As GetProcessTimes: false with the last error set on failure, outputs then undefined.
  virtual bool GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel,
                               FILETIME* user) = 0;
  // As GetProcessIoCounters.
  virtual bool GetProcessIoCounters(HANDLE process, IO_COUNTERS* counters) = 0;
  // As GetSystemTimes: idle, kernel and user time of all processors in 100-ns units.
  virtual bool GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) = 0;
  // dwNumberOfProcessors of GetSystemInfo.
  virtual std::uint32_t NumberOfProcessors() = 0;
};

class SystemCountersSource final : public IProcessCountersSource {
 public:
  bool GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user) override;
  bool GetProcessIoCounters(HANDLE process, IO_COUNTERS* counters) override;
  bool GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) override;
  std::uint32_t NumberOfProcessors() override;

  // The process-wide instance used where no other source is injected.
  static SystemCountersSource& Instance();
};

}  // namespace boottime
