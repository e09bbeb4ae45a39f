#include "boottime/impact_rating.h"

#include <algorithm>
#include <tuple>

namespace boottime {

ImpactRating RateImpact(std::uint64_t cpuMs, std::uint64_t ioBytes) {
  if (cpuMs > kHighCpuMs || ioBytes > kHighIoBytes) return ImpactRating::kHigh;
  if (cpuMs >= kMediumCpuMs || ioBytes >= kMediumIoBytes) return ImpactRating::kMedium;
  return ImpactRating::kLow;
}

std::uint64_t CpuMs(const ProcessImpact& impact) { return std::uint64_t{impact.kernel} + impact.user; }

std::uint64_t IoBytes(const ProcessImpact& impact) {
  return std::uint64_t{impact.read} + impact.write + impact.other;
}

ImpactRating RateImpact(const ProcessImpact& impact) { return RateImpact(CpuMs(impact), IoBytes(impact)); }

const char* RatingName(ImpactRating rating) {
  switch (rating) {
    case ImpactRating::kHigh:
      return "High";
    case ImpactRating::kMedium:
      return "Medium";
    case ImpactRating::kLow:
      return "Low";
    default:
      return "not measured";
  }
}

void SortByImpact(std::vector<ProcessImpact>& impacts) {
  std::stable_sort(impacts.begin(), impacts.end(), [](const ProcessImpact& a, const ProcessImpact& b) {
    return std::make_tuple(static_cast<int>(RateImpact(a)), CpuMs(a), IoBytes(a)) >
           std::make_tuple(static_cast<int>(RateImpact(b)), CpuMs(b), IoBytes(b));
  });
}

}  // namespace boottime
