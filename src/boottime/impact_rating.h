// How much a process or a startup app slowed the boot, rated the way Windows Task Manager
// rates startup impact, so every tool and report of ours agrees with what a user sees there.
#pragma once

#include <cstdint>
#include <vector>

#include "lumera/boottime.h"

namespace boottime {

enum class ImpactRating { kNotMeasured, kLow, kMedium, kHigh };

// Thresholds in ms of CPU time and bytes of disk I/O (1 KB = 1024 bytes).
inline constexpr std::uint64_t kHighCpuMs = 1000;
inline constexpr std::uint64_t kMediumCpuMs = 300;
inline constexpr std::uint64_t kHighIoBytes = 3ull * 1024 * 1024;
inline constexpr std::uint64_t kMediumIoBytes = 300ull * 1024;

// High above 1 s of CPU or 3 MB of I/O; Medium from 300 ms or 300 KB; Low below both.
ImpactRating RateImpact(std::uint64_t cpuMs, std::uint64_t ioBytes);
// Rates kernel + user time against read + write + other bytes.
ImpactRating RateImpact(const ProcessImpact& impact);
// "High", "Medium", "Low" or "not measured".
const char* RatingName(ImpactRating rating);

std::uint64_t CpuMs(const ProcessImpact& impact);
std::uint64_t IoBytes(const ProcessImpact& impact);

// Orders by rating, then CPU time, then I/O, each descending; equal impacts keep ascending pid.
void SortByImpact(std::vector<ProcessImpact>& impacts);

}  // namespace boottime
