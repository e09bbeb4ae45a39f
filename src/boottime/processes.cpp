#include "boottime/processes.h"

#include <stdexcept>

#include "boottime/process_utils.h"
#include "common/log.h"
#include "common/module_library.h"
#include "common/unique_handle.h"

namespace boottime {

BootTimeMonitor::Processes::Processes(BootTimeData* data, IClock& clock, IProcessCountersSource& counters)
    : data_(data), clock_(clock), counters_(counters) {}

BootTimeMonitor::Processes::~Processes() {
  for (TrackedProcess& record : list_) ky::unique_handle closer(record.handle);
}

void BootTimeMonitor::Processes::Append(HANDLE handle, std::uint64_t ppid, std::uint64_t pid,
                                        const std::wstring& name) {
  ky::unique_handle owner(handle);
  if (list_.size() >= list_.max_size()) throw std::length_error("list<T> too long");
  TrackedProcess record;
  record.ppid = ppid;
  record.pid = pid;
  record.name = name;
  record.lastTick = clock_.TickCount();
  if (data_ != nullptr) data_->AddProcess(ppid, pid, name);
  list_.push_back(std::move(record));
  list_.back().handle = owner.release();
}

bool BootTimeMonitor::Processes::Add(const ProcessEvent& event) {
  KY_TRACE(L"boottime::BootTimeMonitor::Processes::Add");
  KY_LOG(logging::kLevelDebug, L"Add %s", event.name.c_str());
  HANDLE handle = ::OpenProcess(kAccess, FALSE, static_cast<DWORD>(event.pid));
  if (handle == nullptr) return false;
  Append(handle, event.ppid, event.pid, event.name);
  return true;
}

bool BootTimeMonitor::Processes::Add(std::uint32_t pid) {
  KY_TRACE(L"boottime::BootTimeMonitor::Processes::Add");
  ::SetLastError(0);
  HANDLE handle = ::OpenProcess(kAccess, FALSE, pid);
  if (handle == INVALID_HANDLE_VALUE) {
    KY_LOG(logging::kLevelError, L"Invalid handle pid : %d error : %d", static_cast<int>(pid),
           static_cast<int>(::GetLastError()));
    return false;
  }
  // A null handle is added on purpose: the record is dropped at its first Update.
  const std::wstring name = utils::GetProcessName(handle);
  KY_LOG(logging::kLevelDebug, L"ADD %s", name.c_str());
  Append(handle, 0, pid, name);
  return true;
}

bool BootTimeMonitor::Processes::Rem(const ProcessEvent& event) {
  KY_TRACE(L"boottime::BootTimeMonitor::Processes::Rem");
  KY_LOG(logging::kLevelDebug, L"REM %s", event.name.c_str());
  for (auto it = list_.begin(); it != list_.end(); ++it) {
    if (it->pid == event.pid) {
      ky::unique_handle closer(it->handle);
      list_.erase(it);
      return true;
    }
  }
  return false;
}

bool BootTimeMonitor::Processes::GetProcessCounters(HANDLE process, ProcessCounters& out) {
  FILETIME creation{}, exit{}, kernel{}, user{};
  ::SetLastError(0);
  if (!counters_.GetProcessTimes(process, &creation, &exit, &kernel, &user)) {
    logging::Write(logging::kLevelError, L"boottime::BootTimeMonitor::Processes::GetProcessCounters",
                   L"GetProcessTimes failed 0x%x", ::GetLastError());
    return false;
  }
  IO_COUNTERS io{};
  ::SetLastError(0);
  if (!counters_.GetProcessIoCounters(process, &io)) {
    logging::Write(logging::kLevelError, L"boottime::BootTimeMonitor::Processes::GetProcessCounters",
                   L"GetProcessIoCounters failed 0x%x", ::GetLastError());
    return false;
  }
  out.kernel = static_cast<std::uint32_t>(ky::FileTimeToU64(kernel) / 10000);
  out.user = static_cast<std::uint32_t>(ky::FileTimeToU64(user) / 10000);
  out.read = static_cast<std::uint32_t>(io.ReadTransferCount);
  out.write = static_cast<std::uint32_t>(io.WriteTransferCount);
  out.other = static_cast<std::uint32_t>(io.OtherTransferCount);
  return true;
}

std::uint32_t BootTimeMonitor::Processes::Load(std::uint32_t before, std::uint32_t now, std::uint32_t elapsed) {
  const auto delta = static_cast<std::int32_t>(now - before);
  if (delta < 0 || static_cast<std::uint32_t>(delta) > elapsed) return 0;
  return static_cast<std::uint32_t>(delta) * 100u / elapsed;
}

void BootTimeMonitor::Processes::Update() {
  KY_TRACE(L"boottime::BootTimeMonitor::Processes::Update");
  for (auto it = list_.begin(); it != list_.end();) {
    TrackedProcess& record = *it;
    ProcessCounters counters;
    if (!GetProcessCounters(record.handle, counters)) {
      // Only Rem closes handles; a record dropped here leaves its handle open on purpose.
      it = list_.erase(it);
      continue;
    }
    const std::uint32_t now = clock_.TickCount();
    bool drop = false;
    if (record.sampleCount >= kMaxSamples) {
      drop = true;
    } else if (record.sampleCount >= 2 && now >= record.lastTick && now != record.lastTick) {
      const std::uint32_t elapsed = now - record.lastTick;
      const std::uint32_t load =
          Load(record.last.kernel, counters.kernel, elapsed) + Load(record.last.user, counters.user, elapsed);
      if (load < kQuietLoad) {
        drop = ++record.quietCount >= kQuietSamples;
      } else {
        record.quietCount = 0;
      }
    } else {
      record.quietCount = 0;
    }

    if (data_ != nullptr) {
      Sample sample;
      sample.time = static_cast<std::int32_t>(now);
      sample.cpuKernelTime = static_cast<std::int32_t>(counters.kernel);
      sample.cpuUserTime = static_cast<std::int32_t>(counters.user);
      sample.bytesRead = static_cast<std::int32_t>(counters.read);
      sample.bytesWritten = static_cast<std::int32_t>(counters.write);
      sample.bytesOther = static_cast<std::int32_t>(counters.other);
      data_->AddSample(record.pid, sample);
    }

    if (drop) {
      KY_LOG(logging::kLevelDebug, L"remove %s", record.name.c_str());
      it = list_.erase(it);
      continue;
    }
    ++record.sampleCount;
    record.lastTick = now;
    record.last = counters;
    ++it;
  }
}

}  // namespace boottime
