// The processes followed during boot: each is sampled once per monitor cycle into the
// sample store and dropped once it has been followed long enough or stayed quiet.
// Not locked: used only from the monitor's thread.
#pragma once

#include <windows.h>

#include <cstdint>
#include <list>
#include <string>

#include "boottime/boot_time_data.h"
#include "boottime/boot_time_monitor.h"
#include "boottime/clock.h"
#include "boottime/process_counters_source.h"
#include "boottime/process_dp.h"

namespace boottime {

// One sample of a process, cumulative since it started.
struct ProcessCounters {
  std::uint32_t kernel = 0;  // ms
  std::uint32_t user = 0;    // ms
  std::uint32_t read = 0;    // bytes, low 32 bits
  std::uint32_t write = 0;
  std::uint32_t other = 0;
};

struct TrackedProcess {
  HANDLE handle = nullptr;  // owned; see Processes for when it is closed
  std::uint64_t ppid = 0;
  std::uint64_t pid = 0;
  std::wstring name;
  ProcessCounters last;
  std::uint32_t sampleCount = 0;
  std::uint32_t quietCount = 0;
  std::uint32_t lastTick = 0;
};

class BootTimeMonitor::Processes {
 public:
  static constexpr DWORD kAccess = PROCESS_QUERY_INFORMATION | PROCESS_VM_READ;  // 0x410
  static constexpr std::uint32_t kMaxSamples = 30;
  static constexpr std::uint32_t kQuietLoad = 20;
  static constexpr std::uint32_t kQuietSamples = 10;

  explicit Processes(BootTimeData* data, IClock& clock = SystemClock::Instance(),
                     IProcessCountersSource& counters = SystemCountersSource::Instance());
  // Closes the handles of the records still listed.
  ~Processes();
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;

  // Follows a process from a start notification; false when it cannot be opened.
  [[nodiscard]] bool Add(const ProcessEvent& event);
  // Follows a process already running; false only when the open gives the invalid-handle
  // value (a null handle is added and dropped at the next Update).
  [[nodiscard]] bool Add(std::uint32_t pid);
  // Stops following the first record with the event's pid; false when there is none.
  [[nodiscard]] bool Rem(const ProcessEvent& event);
  // One sampling pass over every record.
  void Update();
  // Reads the process's cumulative counters; false (logged) when either read fails.
  [[nodiscard]] bool GetProcessCounters(HANDLE process, ProcessCounters& out);

  std::size_t Count() const { return list_.size(); }
  const std::list<TrackedProcess>& List() const { return list_; }

 private:
  void Append(HANDLE handle, std::uint64_t ppid, std::uint64_t pid, const std::wstring& name);
  // Load in percent of one processor over `elapsed` ms; a delta outside 0..elapsed counts 0.
  static std::uint32_t Load(std::uint32_t before, std::uint32_t now, std::uint32_t elapsed);

  BootTimeData* data_;
  IClock& clock_;
  IProcessCountersSource& counters_;
  std::list<TrackedProcess> list_;
};

}  // namespace boottime
