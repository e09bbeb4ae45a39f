// A sliding window of one-second load figures (percentages) with its minimum, maximum and
// average. Not locked: the owner guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "lumera/loadusage.h"

namespace host {

class LoadWindow {
 public:
  explicit LoadWindow(std::size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}

  // Adds a figure, clamped to 0..100; the oldest leaves once the window is full.
  void Add(double percent);
  bool Empty() const { return values_.empty(); }
  double Latest() const { return values_.empty() ? 0.0 : values_.back(); }
  // Minimum, maximum and average of the window (all 0 and samples 0 when empty).
  lumera::LoadUsageFigures Figures() const;

 private:
  std::size_t capacity_;
  std::deque<double> values_;
};

// Busy share in percent from two readings of cumulative idle time and elapsed time (any
// one unit); 0 when no time elapsed.
double BusyPercent(std::uint64_t idleBefore, std::uint64_t idleNow, std::uint64_t totalBefore,
                   std::uint64_t totalNow);

}  // namespace host
