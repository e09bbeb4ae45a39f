#include "boottime/boot_time_data.h"

#include <mutex>
#include <sstream>

#include "common/log.h"

namespace boottime {

std::wstring SampleLogForm(const Sample& sample) {
  std::wostringstream text;
  text << L"cpuKernelTime=" << sample.cpuKernelTime << L' ' << L"cpuUserTime=" << sample.cpuUserTime << L' '
       << L"bytesRead=" << sample.bytesRead << L' ' << L"bytesWritten=" << sample.bytesWritten << L' '
       << L"bytesOther=" << sample.bytesOther << L' ';
  return text.str();
}

void BootTimeData::AddProcess(std::uint64_t ppid, std::uint64_t pid, const std::wstring& name) {
  KY_TRACE(L"boottime::BootTimeData::AddProcess");
  std::lock_guard hold(lock_);
  auto [it, added] = processes_.try_emplace(pid);
  if (added) {
    it->second.ppid = ppid;
    it->second.pid = pid;
    it->second.name = name;
  }
}

void BootTimeData::AddSample(std::uint64_t pid, const Sample& sample) {
  std::lock_guard hold(lock_);
  auto it = processes_.find(pid);
  if (it == processes_.end()) {
    logging::Write(logging::kLevelWarning, L"boottime::BootTimeData::AddSample",
                   L"Can't find process to add data for; Most likely AddProcess was not called for it; skipping");
    return;
  }
  it->second.samples.push_back(sample);
  const auto time = static_cast<std::uint32_t>(sample.time);
  if (time > greatestTime_) greatestTime_ = time;
}

void BootTimeData::ForEachProcess(const std::function<void(const ProcessSamples&)>& fn) const {
  std::lock_guard hold(lock_);
  for (const auto& [pid, process] : processes_) fn(process);
}

std::uint32_t BootTimeData::GreatestSampleTime() const {
  std::lock_guard hold(lock_);
  return greatestTime_;
}

bool BootTimeData::Empty() const {
  std::lock_guard hold(lock_);
  return processes_.empty();
}

void BootTimeData::Dump(std::wostream& out) const {
  std::lock_guard hold(lock_);
  out << L"samples\n";
  for (const auto& [pid, process] : processes_) {
    out << process.name << L' ' << pid << L'\n';
    for (const Sample& sample : process.samples) out << L"time=" << sample.time << L' ' << SampleLogForm(sample) << L'\n';
  }
  out << L"done samples\n";
}

}  // namespace boottime
