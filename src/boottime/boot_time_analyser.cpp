#include "boottime/boot_time_analyser.h"

#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <cwctype>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "common/json_file.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/safe_file.h"
#include "common/text_convert.h"

namespace boottime {
namespace {

constexpr char kProcesses[] = "processes";
constexpr char kPpid[] = "ppid";
constexpr char kPid[] = "pid";
constexpr char kName[] = "name";
constexpr char kCounters[] = "counters";
constexpr std::size_t kCounterCount = 5;

// Base-10 conversion with the rules and error texts of the standard stol: leading spaces
// and a sign allowed, trailing text ignored, nothing numeric is an error.
long long ParseDecimal(const std::string& text, long long minimum, long long maximum, const char* invalid,
                       const char* range) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) throw std::invalid_argument(invalid);
  long long value = 0;
  bool overflow = false;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    if (value > (std::numeric_limits<long long>::max() - 9) / 10) overflow = true;
    if (!overflow) value = value * 10 + (text[i] - '0');
  }
  if (negative) value = -value;
  if (overflow || value < minimum || value > maximum) throw std::out_of_range(range);
  return value;
}

std::uint64_t ToId(const picojson::value& value) {
  // A pid is a signed 32-bit long on Windows.
  return static_cast<std::uint64_t>(ParseDecimal(value.to_str(), std::numeric_limits<std::int32_t>::min(),
                                                 std::numeric_limits<std::int32_t>::max(), "invalid stol argument",
                                                 "stol argument out of range"));
}

std::uint32_t ToCounter(const picojson::value& value) {
  // Counters are written unsigned, so the full unsigned range is read back unchanged.
  return static_cast<std::uint32_t>(ParseDecimal(value.to_str(), std::numeric_limits<std::int32_t>::min(),
                                                 std::numeric_limits<std::uint32_t>::max(), "invalid stoi argument",
                                                 "stoi argument out of range"));
}

bool SameText(const std::wstring& a, const std::wstring& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towlower(x) == std::towlower(y);
         });
}

std::uint32_t SaturatingAdd(std::uint32_t a, std::uint32_t b) {
  const std::uint64_t sum = static_cast<std::uint64_t>(a) + b;
  return sum > std::numeric_limits<std::uint32_t>::max() ? std::numeric_limits<std::uint32_t>::max()
                                                         : static_cast<std::uint32_t>(sum);
}

}  // namespace

void BootTimeAnalyser::Start(const BootTimeData* data) {
  KY_TRACE(L"boottime::BootTimeAnalyser::Start");
  data_ = data;
}

ProcessImpact& BootTimeAnalyser::Entry(const ProcessSamples& process) {
  auto [it, added] = impacts_.try_emplace(process.pid);
  if (added) {
    it->second.ppid = process.ppid;
    it->second.pid = process.pid;
    it->second.name = process.name;
  }
  return it->second;
}

void BootTimeAnalyser::AnalyseData() {
  KY_TRACE(L"boottime::BootTimeAnalyser::AnalyseData");
  if (data_ == nullptr) return;
  data_->ForEachProcess([this](const ProcessSamples& process) {
    const std::vector<Sample>& s = process.samples;
    if (s.empty()) return;
    ProcessImpact& impact = Entry(process);
    impact.kernel = static_cast<std::uint32_t>(s[0].cpuKernelTime);
    impact.user = static_cast<std::uint32_t>(s[0].cpuUserTime);
    for (std::size_t i = 1; i < s.size(); ++i) {
      const auto dt = static_cast<std::int32_t>(static_cast<std::uint32_t>(s[i].time) - static_cast<std::uint32_t>(s[i - 1].time));
      const auto dk = static_cast<std::int32_t>(static_cast<std::uint32_t>(s[i].cpuKernelTime) -
                                                static_cast<std::uint32_t>(s[i - 1].cpuKernelTime));
      const auto du = static_cast<std::int32_t>(static_cast<std::uint32_t>(s[i].cpuUserTime) -
                                                static_cast<std::uint32_t>(s[i - 1].cpuUserTime));
      // A step with more CPU time than wall time is left out, not clipped.
      if (dk >= 0 && dk <= dt) impact.kernel += static_cast<std::uint32_t>(dk);
      if (du >= 0 && du <= dt) impact.user += static_cast<std::uint32_t>(du);
    }
  });
  data_->ForEachProcess([this](const ProcessSamples& process) {
    const std::vector<Sample>& s = process.samples;
    if (s.empty()) return;
    ProcessImpact& impact = Entry(process);
    impact.read = static_cast<std::uint32_t>(s[0].bytesRead);
    impact.write = static_cast<std::uint32_t>(s[0].bytesWritten);
    impact.other = static_cast<std::uint32_t>(s[0].bytesOther);
    // The counters are unsigned 32-bit, so one that wrapped goes down and adds nothing.
    auto add = [](std::uint32_t& total, std::int32_t before, std::int32_t now) {
      const std::int64_t delta = static_cast<std::int64_t>(static_cast<std::uint32_t>(now)) -
                                 static_cast<std::int64_t>(static_cast<std::uint32_t>(before));
      if (delta >= 0) total += static_cast<std::uint32_t>(delta);
    };
    for (std::size_t i = 1; i < s.size(); ++i) {
      add(impact.read, s[i - 1].bytesRead, s[i].bytesRead);
      add(impact.write, s[i - 1].bytesWritten, s[i].bytesWritten);
      add(impact.other, s[i - 1].bytesOther, s[i].bytesOther);
    }
  });
}

bool BootTimeAnalyser::StoreProcessImpactOnDisk(const std::wstring& path) const {
  KY_TRACE(L"boottime::BootTimeAnalyser::StoreProcessImpactOnDisk");
  return ky::Guarded(L"boottime::BootTimeAnalyser::StoreProcessImpactOnDisk", false, [&]() -> bool {
    picojson::array processes;
    for (const auto& [pid, impact] : impacts_) {
      picojson::object element;
      element[kPpid] = picojson::value(std::to_string(impact.ppid));
      element[kPid] = picojson::value(std::to_string(impact.pid));
      element[kName] = picojson::value(ky::WideToUtf8(impact.name));
      picojson::array counters;
      for (std::uint32_t value : {impact.kernel, impact.user, impact.read, impact.write, impact.other}) {
        counters.emplace_back(std::to_string(value));
      }
      element[kCounters] = picojson::value(std::move(counters));
      processes.emplace_back(std::move(element));
    }
    picojson::object root;
    root[kProcesses] = picojson::value(std::move(processes));
    const std::string text = picojson::value(std::move(root)).serialize();

    if (const std::uint32_t written = ky::WriteFileWhole(path, text); written != 0) {
      KY_LOG(logging::kLevelError, L"WriteFileWhole %s failed 0x%x", path.c_str(), written);
      KY_LOG(logging::kLevelError, L"Failed to save boot impact in JSON");
      return false;
    }
    return true;
  });
}

bool BootTimeAnalyser::LoadLastBootProcessImpactFromDisk(const std::wstring& path) {
  KY_TRACE(L"boottime::BootTimeAnalyser::LoadLastBootProcessImpactFromDisk");
  return ky::Guarded(L"boottime::BootTimeAnalyser::LoadLastBootProcessImpactFromDisk", false, [&]() -> bool {
    picojson::value root;
    std::string error;
    const ky::JsonReadResult read = ky::ReadJsonFile(path, root, error, kMaxFileBytes);
    if (read == ky::JsonReadResult::kCannotOpen || read == ky::JsonReadResult::kTooLarge) {
      KY_LOG(logging::kLevelError, L"Can't find last boot process impact data");
      return false;
    }
    if (read == ky::JsonReadResult::kParseError) {
      KY_LOG(logging::kLevelError, L"Invalid json file format : %s", ky::Utf8ToWide(error).c_str());
      return false;
    }
    if (!root.is<picojson::object>()) {
      KY_LOG(logging::kLevelError, L"Invalid last boot json file");
      return false;
    }
    KY_LOG(logging::kLevelInfo, L"Loading data from json");
    const picojson::value& processes = root.get(kProcesses);
    if (!processes.is<picojson::array>()) {
      KY_LOG(logging::kLevelError, L"Json not containing an array");
      return false;
    }
    for (const picojson::value& element : processes.get<picojson::array>()) {
      if (!element.is<picojson::object>()) {
        KY_LOG(logging::kLevelWarning, L"Skipping json entry. Not an object");
        continue;
      }
      try {
        (void)ReadProcessImpactFromJsonValue(element);
      } catch (const std::logic_error& e) {
        KY_LOG(logging::kLevelWarning, L"Skipping json entry. %S", e.what());
      }
    }
    return true;
  });
}

bool BootTimeAnalyser::ReadProcessImpactFromJsonValue(const picojson::value& value) {
  KY_TRACE(L"boottime::BootTimeAnalyser::ReadProcessImpactFromJsonValue");
  if (!value.contains(kPpid) || !value.contains(kPid) || !value.contains(kName) || !value.contains(kCounters)) {
    KY_LOG(logging::kLevelWarning, L"[JSON] Not all keys present. skipping ...\n");
    return false;
  }
  ProcessImpact impact;
  impact.ppid = ToId(value.get(kPpid));
  impact.pid = ToId(value.get(kPid));
  impact.name = ky::Utf8ToWide(value.get(kName).to_str());
  const picojson::value& counters = value.get(kCounters);
  if (!counters.is<picojson::array>()) {
    KY_LOG(logging::kLevelWarning, L"[JSON] Counters not stored in an array");
  } else if (counters.get<picojson::array>().size() == kCounterCount) {
    const picojson::array& c = counters.get<picojson::array>();
    impact.kernel = ToCounter(c[0]);
    impact.user = ToCounter(c[1]);
    impact.read = ToCounter(c[2]);
    impact.write = ToCounter(c[3]);
    impact.other = ToCounter(c[4]);
  }
  impacts_[impact.pid] = std::move(impact);
  return true;
}

void BootTimeAnalyser::WriteListing(std::wostream& out) const {
  out << L"process impact\n\n";
  for (const auto& [pid, impact] : impacts_) {
    out << impact.pid << L',' << impact.name << L',' << impact.kernel << L',' << impact.user << L',' << impact.read
        << L',' << impact.write << L',' << impact.other << L'\n';
  }
  out << L"done process impact\n\n";
}

void BootTimeAnalyser::GetImpacts(const ProcessKey& key, ky::IList<ProcessImpact>& out) const {
  for (const auto& [pid, impact] : impacts_) {
    if (key.pid != 0 && key.pid != impact.pid) continue;
    if (!key.name.empty() && !SameText(key.name, impact.name)) continue;
    out.Add(impact);
  }
}

BootCounters BootTimeAnalyser::GetTotal() const {
  BootCounters total;
  for (const auto& [pid, impact] : impacts_) {
    total.kernel = SaturatingAdd(total.kernel, impact.kernel);
    total.user = SaturatingAdd(total.user, impact.user);
    total.read = SaturatingAdd(total.read, impact.read);
    total.write = SaturatingAdd(total.write, impact.write);
    total.other = SaturatingAdd(total.other, impact.other);
  }
  return total;
}

}  // namespace boottime
