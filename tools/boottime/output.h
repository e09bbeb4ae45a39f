// How boottime.exe prints answers: text for a person or one JSON object per answer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lumera/boottime.h"

namespace tool {

class Printer {
 public:
  explicit Printer(bool json) : json_(json) {}

  void BootTime(std::uint32_t milliseconds) const;
  void Counters(const boottime::BootCounters& counters) const;
  void Impacts(const std::vector<boottime::ProcessImpact>& impacts) const;
  void Disk(const boottime::DiskSpeed& speed) const;
  void DataAnalysed(std::uint32_t status) const;
  // Every process by impact, descending, with its Task Manager rating.
  void Blame(std::vector<boottime::ProcessImpact> impacts) const;
  // Boot time, totals, disk speed (null: not measured) and the five processes of most impact.
  void Summary(std::uint32_t bootTimeMs, const boottime::DiskSpeed* disk,
               std::vector<boottime::ProcessImpact> impacts) const;
  // The code and its meaning, on stderr (and as JSON on stdout with --json).
  void Failure(const char* what, std::uint32_t code) const;

 private:
  bool json_;
};

// "not yet known", "no results" or "Windows error".
const char* Meaning(std::uint32_t code);
std::string JsonString(const std::wstring& text);

}  // namespace tool
