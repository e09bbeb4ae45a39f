// The host plug-in "LoadUsage" (identifier lumera::ids::LoadUsagePlugin): recent load
// figures of the machine, sampled by the host once a second over a sliding window.
//
// Created on the first GetPlugin and alive until the host shuts down; its methods may be
// called from any thread and never block for long.
#pragma once

#include <cstdint>

#include "lumera/ky_base.h"

namespace lumera {

// What a query is about.
inline constexpr std::uint32_t kLoadKindProcessor = 1;  // share of time the processors were busy
inline constexpr std::uint32_t kLoadKindDisk = 3;       // share of time the physical disks were busy

// Answer of slot 6. Figures are percentages (0..100) of the samples in the window.
struct LoadUsageFigures {
  double minimum = 0;
  double maximum = 0;
  double average = 0;
  std::uint32_t samples = 0;       // how many one-second samples the figures cover
  std::uint32_t windowSeconds = 0; // the longest span the window keeps
};

}  // namespace lumera

struct ILoadUsage : IServPlugin {
  // The latest one-second figure of `kind` in *percent. Returns 0, 13 for a null output,
  // 87 for an unknown kind, 50 when the system offers no counter for the kind, 21 while
  // no second has been measured yet; *percent is untouched on failure.
  virtual std::uint32_t GetCurrentUsage(std::uint32_t kind, double* percent) = 0;  // slot 5
  // Minimum, maximum and average of `kind` over the window. Same codes as slot 5;
  // *figures is untouched on failure.
  virtual std::uint32_t GetUsage(std::uint32_t kind, lumera::LoadUsageFigures* figures) = 0;  // slot 6
};
