// The analyser with the state the plug-in shares between threads: the processing thread
// analyses, stores and reloads while pipe threads and the report thread query, so every
// access to the impact map goes through this object's lock.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "boottime/boot_time_analyser.h"
#include "boottime/boot_time_data.h"
#include "common/critical_section.h"
#include "lumera/boottime.h"
#include "lumera/ky_list.h"

namespace boottime {

// Neither copied nor moved: it holds a lock.
class AnalyserState {
 public:
  // Binds to `data`, and when it holds samples analyses them and sums the impacts (status
  // 0); without samples the status becomes 2. Earlier impacts are dropped first.
  void Analyse(const BootTimeData* data);
  // Replaces the impacts with those of the file at `path`: status 0 when the file was read,
  // 2 (logged by the analyser) when not.
  void Load(const std::wstring& path);
  // Writes the impacts to `path`; false (logged) when the file cannot be written.
  [[nodiscard]] bool Store(const std::wstring& path);

  // The status (0 results, 1 not yet known, 2 none); the summary is copied to *total when given.
  std::uint32_t Summary(BootCounters* total = nullptr);
  // Appends the impacts selected by `key` (every impact when null) and returns the status.
  std::uint32_t GetImpacts(const ProcessKey* key, ky::IList<ProcessImpact>& out);
  std::uint32_t Status() { return Summary(nullptr); }
  bool HasData();
  void WriteListing(std::wostream& out);

 private:
  void Summarise();

  ky::CriticalSection lock_;
  bool hasData_ = false;
  std::uint32_t status_ = kStatusNotYetKnown;
  BootCounters summary_;
  BootTimeAnalyser analyser_;
};

}  // namespace boottime
