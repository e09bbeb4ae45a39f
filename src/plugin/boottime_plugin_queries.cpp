// The IBootTime queries and the listener list. Each query takes the status lock first and
// releases it before it takes the lock of the data it copies.
#include <mutex>

#include "common/guard.h"
#include "common/log.h"
#include "plugin/boottime_plugin.h"

namespace boottime {

std::uint32_t CBootTimePlugin::OverallStatus() {
  std::lock_guard hold(statusLock_);
  return overallStatus_;
}

std::uint32_t CBootTimePlugin::GetBootTime(std::uint32_t* milliseconds) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootTime");
  if (milliseconds == nullptr) return ERROR_INVALID_DATA;
  const std::uint32_t overall = OverallStatus();
  if (overall != kStatusAvailable) return overall;
  const std::uint32_t status = monitor_.Result(milliseconds);
  KY_LOG(logging::kLevelInfo, L"boot time = %d", *milliseconds);
  return status;
}

std::uint32_t CBootTimePlugin::GetTotalBootImpact(BootCounters* total) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetTotalBootImpact");
  if (total == nullptr) return ERROR_INVALID_DATA;
  const std::uint32_t overall = OverallStatus();
  if (overall != kStatusAvailable) return overall;
  return analyser_.Summary(total);
}

std::uint32_t CBootTimePlugin::GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootImpact");
  if (impacts == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimePlugin::GetBootImpact", ky::kGeneralFailure, ky::kOutOfMemory,
                     [&]() -> std::uint32_t {
                       const std::uint32_t overall = OverallStatus();
                       if (overall != kStatusAvailable) return overall;
                       return analyser_.GetImpacts(key, *impacts);
                     });
}

std::uint32_t CBootTimePlugin::GetDiskSpeed(DiskSpeed* speed) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetDiskSpeed");
  if (speed == nullptr) return ERROR_INVALID_DATA;
  return diskPerformance_.GetResult(speed);
}

std::uint32_t CBootTimePlugin::AddListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimePlugin::AddListener");
  if (listener == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimePlugin::AddListener", ky::kGeneralFailure,
                     [&] { return listeners_.Register(listener); });
}

std::uint32_t CBootTimePlugin::RemoveListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimePlugin::RemoveListener");
  return listeners_.Unregister(listener);
}

}  // namespace boottime
