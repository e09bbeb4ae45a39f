#include "boottime/boot_time_analyser.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <limits>
#include <sstream>

#include "common/json_file.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/safe_file.h"
#include "common/text_convert.h"

namespace boottime {
namespace {

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
    if (const std::uint32_t written = ky::WriteFileWhole(path, EncodeImpactFile(impacts_)); written != 0) {
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
    std::string bytes;
    if (ky::ReadFileBytes(path, bytes, kMaxFileBytes) != ky::JsonReadResult::kOk) {
      KY_LOG(logging::kLevelError, L"Can't find last boot process impact data");
      return false;
    }
    const ImpactDocument document = DecodeImpactFile(bytes);
    switch (document.status) {
      case ImpactDocument::Status::kParseError:
        KY_LOG(logging::kLevelError, L"Invalid json file format : %s", ky::Utf8ToWide(document.parseError).c_str());
        return false;
      case ImpactDocument::Status::kNotAnObject:
        KY_LOG(logging::kLevelError, L"Invalid last boot json file");
        return false;
      default:
        break;
    }
    KY_LOG(logging::kLevelInfo, L"Loading data from json");
    if (document.status == ImpactDocument::Status::kNoProcessArray) {
      KY_LOG(logging::kLevelError, L"Json not containing an array");
      return false;
    }
    for (const ImpactElement& element : document.elements) ReadProcessImpactFromJsonValue(element, kyTrace_.Name());
    return true;
  });
}

void BootTimeAnalyser::ReadProcessImpactFromJsonValue(const ImpactElement& element, const wchar_t* loader) {
  if (element.outcome == ImpactElement::Outcome::kNotAnObject) {
    logging::Write(logging::kLevelWarning, loader, L"Skipping json entry. Not an object");
    return;
  }
  {
    KY_TRACE(L"boottime::BootTimeAnalyser::ReadProcessImpactFromJsonValue");
    if (element.outcome == ImpactElement::Outcome::kMissingKeys) {
      KY_LOG(logging::kLevelWarning, L"[JSON] Not all keys present. skipping ...\n");
      return;
    }
    if (element.countersNotArray) KY_LOG(logging::kLevelWarning, L"[JSON] Counters not stored in an array");
  }
  if (element.outcome == ImpactElement::Outcome::kBadNumber) {
    logging::Write(logging::kLevelWarning, loader, L"Skipping json entry. %S", element.numberError);
    return;
  }
  impacts_[element.impact.pid] = element.impact;
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
