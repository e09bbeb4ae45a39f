// Timing helpers shared by the benchmarks.
#pragma once

#include <windows.h>

#include <algorithm>
#include <vector>

namespace bench {

inline double NowSeconds() {
  static const double frequency = [] {
    LARGE_INTEGER f;
    ::QueryPerformanceFrequency(&f);
    return static_cast<double>(f.QuadPart);
  }();
  LARGE_INTEGER t;
  ::QueryPerformanceCounter(&t);
  return static_cast<double>(t.QuadPart) / frequency;
}

inline double NowMicroseconds() { return NowSeconds() * 1e6; }

inline double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace bench
