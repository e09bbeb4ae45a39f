// Timing helpers shared by the benchmarks.
#pragma once

#include <windows.h>

#include <algorithm>
#include <string>
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

// Measured as deployed: information and above, unless LUMERA_LOG_LEVEL says otherwise (32
// measures with every trace). Returns the level in force.
inline std::wstring LogLevelAsDeployed() {
  wchar_t level[16] = {};
  const DWORD chars = ::GetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", level, 16);
  if (chars == 0) {
    ::SetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", L"16");
    return L"16";
  }
  return chars < 16 ? std::wstring(level, chars) : std::wstring();
}

}  // namespace bench
