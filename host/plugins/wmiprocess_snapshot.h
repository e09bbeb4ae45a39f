// The machine's process list as "wmiprocessdp" sees it, and what changed between two looks.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "system_process_list.h"

namespace host {

struct ProcessEntry {
  std::uint32_t pid = 0;
  std::uint32_t ppid = 0;
  std::wstring name;         // executable file name
  std::wstring imagePath;    // empty when unknown
  std::wstring commandLine;  // empty when unknown
  bool detailed = false;     // imagePath and commandLine were looked up
};

using ProcessSnapshot = std::map<std::uint32_t, ProcessEntry>;

// Fills `snapshot` with every running process (pid, parent pid, file name) through `list`,
// whose buffer is kept for the next look; false when the system gives no list (snapshot then
// empty).
[[nodiscard]] bool TakeProcessSnapshot(SystemProcessList& list, ProcessSnapshot& snapshot);

// Looks up the image path and command line of a process; what cannot be read stays empty.
void FillProcessDetails(ProcessEntry& entry);

// Processes in `now` and not in `before` are started, the reverse ended; a pid whose parent
// changed, or whose file name was replaced by another, was reused and counts as both.
void DiffSnapshots(const ProcessSnapshot& before, const ProcessSnapshot& now, std::vector<std::uint32_t>& started,
                   std::vector<std::uint32_t>& ended);

}  // namespace host
