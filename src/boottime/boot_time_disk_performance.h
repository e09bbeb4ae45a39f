// Measures how loaded the disk is once the boot is over: waits (at most about ten seconds)
// for the processors to become idle, then asks the host's "LoadUsage" plug-in.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "boottime/clock.h"
#include "boottime/process_counters_source.h"
#include "common/critical_section.h"
#include "lumera/boottime.h"
#include "lumera/loadusage.h"

namespace boottime {

class BootTimeDiskPerformance {
 public:
  static constexpr DWORD kStepMs = 1000;
  static constexpr std::uint32_t kMaxWaitMs = 10000;
  static constexpr double kIdleShare = 0.8;

  explicit BootTimeDiskPerformance(IClock& clock = SystemClock::Instance(),
                                   IProcessCountersSource& counters = SystemCountersSource::Instance());
  BootTimeDiskPerformance(const BootTimeDiskPerformance&) = delete;
  BootTimeDiskPerformance& operator=(const BootTimeDiskPerformance&) = delete;

  // The plug-in to ask (not owned); null forgets it.
  void SetLoadUsage(ILoadUsage* loadUsage);

  // Without a plug-in only sets the status to 2; otherwise measures (MeasureDiskPerformance).
  void Start(HANDLE stopEvent);
  // Status 2 when the stop event is set during a wait or the plug-in cannot answer;
  // otherwise stores the figures with status 0.
  void MeasureDiskPerformance(HANDLE stopEvent);

  // The figures and the status (0 measured, 1 not yet, 2 none), read together.
  [[nodiscard]] std::uint32_t GetResult(DiskSpeed* speed) const;

  // "min_hddUsage=x max_hddUsage=y average_hddUsage=z "
  std::wstring LogForm() const;

 private:
  bool ReadIdle(std::uint64_t& idle);
  void SetStatus(std::uint32_t status);

  IClock& clock_;
  IProcessCountersSource& counters_;
  mutable ky::CriticalSection lock_;
  ILoadUsage* loadUsage_ = nullptr;
  std::uint32_t status_ = kStatusNotYetKnown;
  DiskSpeed result_;
};

}  // namespace boottime
