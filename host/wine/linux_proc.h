// Reading the Linux side's process and disk accounting from a Windows program under Wine,
// through drive Z: (Z:\proc\<pid>\stat, Z:\proc\<pid>\io, Z:\proc\diskstats). The parsers
// take the files' text and are bounded: malformed text yields false, never a crash.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace host::wine {

inline constexpr std::uint32_t kClockTicksPerSecond = 100;  // USER_HZ of /proc/<pid>/stat

struct LinuxStat {
  std::uint64_t userTicks = 0;    // utime
  std::uint64_t systemTicks = 0;  // stime
  std::uint64_t startTicks = 0;   // starttime, since the machine started
};

struct LinuxIo {
  std::uint64_t rchar = 0;  // bytes passed to read calls, cache hits and pipes included
  std::uint64_t wchar = 0;  // bytes passed to write calls
  std::uint64_t syscr = 0;
  std::uint64_t syscw = 0;
  std::uint64_t readBytes = 0;   // bytes fetched from storage
  std::uint64_t writeBytes = 0;  // bytes sent towards storage
  bool hasStorage = false;       // read_bytes and write_bytes were listed (task I/O accounting)
};

struct LinuxDisk {
  std::string name;
  std::uint64_t ioTicksMs = 0;  // milliseconds spent doing I/O (field 13)
};

// The whole content of a file under Z:, at most `limit` bytes; false when it cannot be read.
[[nodiscard]] bool ReadLinuxFile(const std::wstring& path, std::string& out, std::size_t limit = 64 * 1024);

[[nodiscard]] bool ParseStat(std::string_view text, LinuxStat& out);
// Needs rchar and wchar; the other fields stay 0 when absent.
[[nodiscard]] bool ParseIo(std::string_view text, LinuxIo& out);
// The first figure of /proc/uptime (seconds since the machine started, on the clock of
// /proc/<pid>/stat's start times) in milliseconds; 0 when malformed.
[[nodiscard]] std::uint64_t ParseUptimeMs(std::string_view text);
// Every line of /proc/diskstats with its device name and io_ticks; malformed lines skipped.
[[nodiscard]] std::vector<LinuxDisk> ParseDiskStats(std::string_view text);
// True when the NUL-separated command line starts with the UTF-8 image path (ASCII letters
// compared without case) followed by a separator or its end: how a Wine process shows its
// Windows image path.
[[nodiscard]] bool CommandLineStartsWith(std::string_view cmdline, std::string_view imageUtf8);

// The numeric entries of Z:\proc (the Linux pids) at the moment of the call.
[[nodiscard]] std::vector<std::uint32_t> LinuxPids();

}  // namespace host::wine
