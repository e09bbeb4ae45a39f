#include "boottime/boot_time_disk_performance.h"

#include <mutex>
#include <sstream>

#include "common/log.h"
#include "common/module_library.h"
#include "common/stop_wait.h"

namespace boottime {

BootTimeDiskPerformance::BootTimeDiskPerformance(IClock& clock, IProcessCountersSource& counters)
    : clock_(clock), counters_(counters) {}

void BootTimeDiskPerformance::SetLoadUsage(ILoadUsage* loadUsage) {
  std::lock_guard hold(lock_);
  loadUsage_ = loadUsage;
}

void BootTimeDiskPerformance::SetStatus(std::uint32_t status) {
  std::lock_guard hold(lock_);
  status_ = status;
}

void BootTimeDiskPerformance::Start(HANDLE stopEvent) {
  KY_TRACE(L"boottime::BootTimeDiskPerformance::Start");
  bool held = false;
  {
    std::lock_guard hold(lock_);
    held = loadUsage_ != nullptr;
    if (!held) status_ = kStatusNoResults;
  }
  if (held) MeasureDiskPerformance(stopEvent);
}

bool BootTimeDiskPerformance::ReadIdle(std::uint64_t& idle) {
  FILETIME idleTime{}, kernelTime{}, userTime{};
  ::SetLastError(0);
  if (!counters_.GetSystemTimes(&idleTime, &kernelTime, &userTime)) {
    logging::Write(logging::kLevelError, L"boottime::BootTimeDiskPerformance::MeasureDiskPerformance",
                   L"GetSystemTimes failed with error code %lu", ::GetLastError());
    return false;
  }
  idle = ky::FileTimeToU64(idleTime);
  return true;
}

void BootTimeDiskPerformance::MeasureDiskPerformance(HANDLE stopEvent) {
  KY_TRACE(L"boottime::BootTimeDiskPerformance::MeasureDiskPerformance");
  const std::uint32_t start = clock_.TickCount();
  std::uint32_t processors = counters_.NumberOfProcessors();
  if (processors == 0) processors = 1;
  std::uint64_t idleBefore = 0;
  (void)ReadIdle(idleBefore);  // a failure is logged and the old (zero) value stays
  std::uint32_t tickBefore = start;

  if (ky::WaitMeansStop(clock_.WaitForStop(stopEvent, kStepMs))) {
    SetStatus(kStatusNoResults);
    return;
  }
  for (;;) {
    std::uint64_t idleNow = idleBefore;
    (void)ReadIdle(idleNow);
    const std::uint32_t tickNow = clock_.TickCount();
    const double idlePerProcessor = static_cast<double>(idleNow - idleBefore) / 10000.0 / processors;
    const std::uint32_t elapsed = tickNow - tickBefore;
    const double idleShare = elapsed == 0 ? 0.0 : idlePerProcessor / elapsed;
    if (idleShare > kIdleShare || tickNow - start > kMaxWaitMs) break;
    idleBefore = idleNow;
    tickBefore = tickNow;
    if (ky::WaitMeansStop(clock_.WaitForStop(stopEvent, kStepMs))) {
      SetStatus(kStatusNoResults);
      return;
    }
  }

  ILoadUsage* loadUsage = nullptr;
  {
    std::lock_guard hold(lock_);
    loadUsage = loadUsage_;
  }
  DiskSpeed sum;
  if (loadUsage != nullptr) {
    for (int i = 0; i < 2; ++i) {
      lumera::LoadUsageFigures figures;
      const std::uint32_t code = loadUsage->GetUsage(lumera::kLoadKindDisk, &figures);
      // A failed answer leaves its figures at zero and still counts in the average.
      if (code != 0) KY_LOG(logging::kLevelWarning, L"LoadUsage GetUsage failed 0x%x", code);
      sum.minimum += figures.minimum;
      sum.maximum += figures.maximum;
      sum.average += figures.average;
    }
    sum.minimum *= 0.5;
    sum.maximum *= 0.5;
    sum.average *= 0.5;
  }
  std::uint32_t status = kStatusAvailable;
  {
    std::lock_guard hold(lock_);
    result_ = sum;
    status_ = kStatusAvailable;
    status = status_;
  }
  KY_LOG(logging::kLevelInfo, L"Disk speed determined [min, max, avg]=[%f, %f, %f]; status = %d", sum.minimum,
         sum.maximum, sum.average, static_cast<int>(status));
}

std::uint32_t BootTimeDiskPerformance::GetResult(DiskSpeed* speed) const {
  std::lock_guard hold(lock_);
  if (speed != nullptr) *speed = result_;
  return status_;
}

std::wstring BootTimeDiskPerformance::LogForm() const {
  DiskSpeed speed;
  (void)GetResult(&speed);
  std::wostringstream text;
  text << L"min_hddUsage=" << speed.minimum << L' ' << L"max_hddUsage=" << speed.maximum << L' '
       << L"average_hddUsage=" << speed.average << L' ';
  return text.str();
}

}  // namespace boottime
