// "last_boot_time_process_impact.json": {"processes":[{"ppid","pid","name","counters":[kernel,
// user, read, write, other]}, ...]}, every number kept as a decimal string. The codec is pure
// (bytes in, impacts or the reason out); the analyser does the file I/O and the logging.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <picojson.h>

#include "lumera/boottime.h"

namespace boottime {

inline constexpr wchar_t kProcessImpactFileName[] = L"last_boot_time_process_impact.json";

// One element of "processes" as read.
struct ImpactElement {
  enum class Outcome { kRead, kNotAnObject, kMissingKeys, kBadNumber };
  Outcome outcome = Outcome::kRead;
  bool countersNotArray = false;  // read with zero counters
  const char* numberError = "";   // with kBadNumber: the message the standard stol/stoi gives
  ProcessImpact impact;           // with kRead; counters stay 0 unless exactly five are given
};

struct ImpactDocument {
  enum class Status { kOk, kParseError, kNotAnObject, kNoProcessArray };
  Status status = Status::kOk;
  std::string parseError;               // with kParseError
  std::vector<ImpactElement> elements;  // with kOk, in file order
};

// One element: ids read as signed 32-bit numbers, counters over the full unsigned 32-bit range,
// both as the standard stol reads (leading spaces and trailing text allowed); JSON numbers
// are read through their text.
ImpactElement DecodeImpactElement(const picojson::value& value);
ImpactDocument DecodeImpactFile(std::string_view bytes);
// The document for `impacts`, in their map order.
std::string EncodeImpactFile(const std::map<std::uint64_t, ProcessImpact>& impacts);

}  // namespace boottime
