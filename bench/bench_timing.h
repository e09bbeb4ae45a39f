// Timing helpers shared by the benchmarks.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
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

// One "--name N" option of a benchmark and where its value goes.
struct CountOption {
  const char* name;
  int* value;
};

// Reads "--name N" pairs (N from 1 to maxValue) and, when `flag` is given, the bare `flag`
// into *flagSet; for anything else prints `usage` on standard error and returns false, with
// the values read so far kept.
inline bool ParseCountOptions(int argc, char** argv, const char* usage, std::initializer_list<CountOption> options,
                              int maxValue, const char* flag = nullptr, bool* flagSet = nullptr) {
  for (int i = 1; i < argc; ++i) {
    if (flag != nullptr && std::strcmp(argv[i], flag) == 0) {
      *flagSet = true;
      continue;
    }
    const int value = i + 1 < argc ? std::atoi(argv[i + 1]) : 0;
    const auto option = std::find_if(options.begin(), options.end(),
                                     [&](const CountOption& o) { return std::strcmp(argv[i], o.name) == 0; });
    if (value <= 0 || value > maxValue || option == options.end()) {
      std::fprintf(stderr, "%s\n", usage);
      return false;
    }
    *option->value = value;
    ++i;
  }
  return true;
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
