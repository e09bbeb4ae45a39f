// The sample store: per followed process, the one-second samples of its processor and
// disk counters taken while the boot runs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "common/critical_section.h"

namespace boottime {

// One sample of a process; the five counters are cumulative since the process started.
struct Sample {
  std::int32_t time = 0;  // tick count (ms) when taken
  std::int32_t cpuKernelTime = 0;
  std::int32_t cpuUserTime = 0;
  std::int32_t bytesRead = 0;
  std::int32_t bytesWritten = 0;
  std::int32_t bytesOther = 0;
};

// "cpuKernelTime=1 cpuUserTime=2 bytesRead=3 bytesWritten=4 bytesOther=5 "
std::wstring SampleLogForm(const Sample& sample);

struct ProcessSamples {
  std::uint64_t ppid = 0;
  std::uint64_t pid = 0;
  std::wstring name;
  std::vector<Sample> samples;
};

class BootTimeData {
 public:
  BootTimeData() = default;
  BootTimeData(const BootTimeData&) = delete;
  BootTimeData& operator=(const BootTimeData&) = delete;

  // Enters a process before its first sample; a pid already entered keeps its record.
  void AddProcess(std::uint64_t ppid, std::uint64_t pid, const std::wstring& name);
  // Appends the sample to the process's series; an unknown pid is logged and skipped.
  void AddSample(std::uint64_t pid, const Sample& sample);

  // Calls fn for every process in ascending pid order with the store's lock held for the
  // whole walk, so fn must not call back into the store.
  void ForEachProcess(const std::function<void(const ProcessSamples&)>& fn) const;

  // The latest sample time seen (0 before the first sample).
  std::uint32_t GreatestSampleTime() const;
  bool Empty() const;

  // "samples", then per process its name and pid and one line per sample, then "done samples".
  void Dump(std::wostream& out) const;

 private:
  mutable ky::CriticalSection lock_;
  std::map<std::uint64_t, ProcessSamples> processes_;
  std::uint32_t greatestTime_ = 0;
};

}  // namespace boottime
