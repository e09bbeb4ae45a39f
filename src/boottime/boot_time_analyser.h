// Turns the samples taken during boot into each process's boot impact, and keeps the last
// impacts in "last_boot_time_process_impact.json". The impacts are written only by the
// processing thread; readers on other threads go through the owner's lock.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

#include "boottime/boot_time_data.h"
#include "boottime/impact_file.h"
#include "lumera/boottime.h"
#include "lumera/ky_list.h"

namespace boottime {

class BootTimeAnalyser {
 public:
  // The largest process-impact file that is read.
  static constexpr std::size_t kMaxFileBytes = 16u * 1024u * 1024u;

  BootTimeAnalyser() = default;
  BootTimeAnalyser(const BootTimeAnalyser&) = delete;
  BootTimeAnalyser& operator=(const BootTimeAnalyser&) = delete;

  // Binds to the sample store (not owned).
  void Start(const BootTimeData* data);
  // One pass over the stored processes under the store's lock: CPU time, then I/O bytes.
  void AnalyseData();

  // Writes every impact to `path`; false (logged) when the file cannot be written.
  [[nodiscard]] bool StoreProcessImpactOnDisk(const std::wstring& path) const;
  // Adds the impacts of the file at `path`; false (logged) when the file is missing or not
  // a document of impacts. Bad elements are logged and skipped.
  [[nodiscard]] bool LoadLastBootProcessImpactFromDisk(const std::wstring& path);

  // "process impact", blank line, "pid,name,kernel,user,read,write,other" per impact,
  // "done process impact", blank line.
  void WriteListing(std::wostream& out) const;

  // Appends the impacts selected by `key` (see ProcessKey), in ascending pid order.
  void GetImpacts(const ProcessKey& key, ky::IList<ProcessImpact>& out) const;
  // The sum of every impact's counters (each saturating at 2^32 - 1).
  BootCounters GetTotal() const;

  bool Empty() const { return impacts_.empty(); }
  void Clear() { impacts_.clear(); }
  const std::map<std::uint64_t, ProcessImpact>& Impacts() const { return impacts_; }

 private:
  ProcessImpact& Entry(const ProcessSamples& process);
  // Keeps one decoded element, or logs why it is skipped (`loader` names the caller's log).
  void ReadProcessImpactFromJsonValue(const ImpactElement& element, const wchar_t* loader);

  const BootTimeData* data_ = nullptr;
  std::map<std::uint64_t, ProcessImpact> impacts_;  // keyed by pid only
};

}  // namespace boottime
