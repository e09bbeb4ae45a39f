// The busy time of the machine's whole disks from the Linux side's /proc/diskstats, for the
// "LoadUsage" host plug-in under Wine, which has no disk performance counters.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace host::wine {

// A disk name of /proc/diskstats that stands for a physical disk rather than a loop, memory,
// optical or mapped device; partitions are told apart by the caller (they have no entry in
// /sys/block).
[[nodiscard]] bool IsPhysicalDiskName(std::string_view name);

struct LinuxDiskBusy {
  std::uint64_t busyMs = 0;  // io_ticks summed over the whole disks
  std::uint32_t disks = 0;   // how many were summed
};

// Reads Z:\proc\diskstats; false when it cannot be read or lists no whole physical disk.
[[nodiscard]] bool ReadLinuxDiskBusy(LinuxDiskBusy& out);

}  // namespace host::wine
