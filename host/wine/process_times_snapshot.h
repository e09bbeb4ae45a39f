// Processor times of every process by Windows pid, from
// NtQuerySystemInformation(SystemProcessInformation): under Wine this sums the Linux
// accounting of each process's threads, while GetProcessTimes of another process answers
// constants. A snapshot serves until it is kMaxAgeMs old and a process is asked for that it
// does not list or that it served kMaxAgeMs ago or more, or until it is kMaxServeMs old.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <mutex>

#include "system_process_list.h"

namespace host::wine {

class ProcessTimesSnapshot {
 public:
  struct Times {
    std::uint64_t created = 0;  // file time
    std::uint64_t kernel = 0;   // 100-ns units
    std::uint64_t user = 0;
  };

  // The times of `pid`; false when no process of that pid is listed (or the query failed).
  // Thread-safe.
  [[nodiscard]] bool Get(DWORD pid, Times& out);

  static constexpr DWORD kMaxAgeMs = 200;
  static constexpr DWORD kMaxServeMs = 1000;

 private:
  struct Listed {
    Times times;
    DWORD servedTick = 0;
    bool served = false;
  };
  bool Refresh();

  std::mutex lock_;
  std::map<DWORD, Listed> times_;
  SystemProcessList list_;
  DWORD takenTick_ = 0;
  bool taken_ = false;
};

}  // namespace host::wine
