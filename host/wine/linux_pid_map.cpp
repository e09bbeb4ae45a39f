#include "wine/linux_pid_map.h"

#include <limits>
#include <string>
#include <vector>

#include "common/module_library.h"
#include "common/text_convert.h"
#include "wine/linux_proc.h"

namespace host::wine {
namespace {

constexpr std::size_t kMaxCached = 4096;
constexpr std::size_t kCmdlineLimit = 4096;
// Both /proc/<pid>/stat and /proc/uptime count in 10 ms steps, each rounded down.
constexpr std::int64_t kStartSlackMs = 20;

std::int64_t LinuxUptimeMs() {
  std::string text;
  return ReadLinuxFile(L"Z:\\proc\\uptime", text, 256) ? static_cast<std::int64_t>(ParseUptimeMs(text)) : 0;
}

// Milliseconds since the Linux machine started at which a process created at `created`
// started, on the clock of /proc/<pid>/stat; Wine's tick count runs a few hundred ms apart
// from it (measured: 242-252 ms), enough to swap two instances started in quick succession.
std::int64_t SinceLinuxBootMs(std::uint64_t created) {
  std::uint64_t uptimeMs = static_cast<std::uint64_t>(LinuxUptimeMs());
  if (uptimeMs == 0) uptimeMs = ::GetTickCount64();
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const std::uint64_t nowMs = ky::FileTimeToU64(now) / 10000;
  return static_cast<std::int64_t>(created / 10000) - static_cast<std::int64_t>(nowMs - uptimeMs);
}

}  // namespace

std::uint32_t LinuxPidMap::Find(DWORD windowsPid, std::uint64_t created, const std::function<std::wstring()>& image) {
  std::lock_guard hold(lock_);
  const DWORD now = ::GetTickCount();
  auto it = cache_.find(windowsPid);
  if (it != cache_.end() && it->second.created == created) {
    if (it->second.linuxPid != 0 || now - it->second.triedTick < kRetryMs) return it->second.linuxPid;
  }
  if (cache_.size() >= kMaxCached) cache_.clear();
  Entry entry{created, Search(created, image ? image() : std::wstring()), now};
  cache_[windowsPid] = entry;
  return entry.linuxPid;
}

void LinuxPidMap::Forget(DWORD windowsPid) {
  std::lock_guard hold(lock_);
  cache_.erase(windowsPid);
}

std::uint32_t PickByStart(const std::vector<LinuxStart>& candidates, std::int64_t createdMs) {
  const LinuxStart* latestBefore = nullptr;
  const LinuxStart* nearest = nullptr;
  std::int64_t nearestDistance = std::numeric_limits<std::int64_t>::max();
  for (const LinuxStart& candidate : candidates) {
    if (candidate.startMs <= createdMs + kStartSlackMs &&
        (latestBefore == nullptr || candidate.startMs > latestBefore->startMs)) {
      latestBefore = &candidate;
    }
    const std::int64_t distance =
        candidate.startMs > createdMs ? candidate.startMs - createdMs : createdMs - candidate.startMs;
    if (distance < nearestDistance) {
      nearest = &candidate;
      nearestDistance = distance;
    }
  }
  if (latestBefore != nullptr) return latestBefore->pid;
  return nearest != nullptr ? nearest->pid : 0;
}

std::uint32_t LinuxPidMap::Search(std::uint64_t created, const std::wstring& image) {
  const std::string wanted = ky::WideToUtf8(image);
  if (wanted.empty()) return 0;
  const std::int64_t startMs = created != 0 ? SinceLinuxBootMs(created) : 0;
  // Reading every Linux process's command line through Wine costs milliseconds, and a logon
  // starts many programs at once, so one look serves every process that had started before it.
  if (startMs == 0 || scanMs_ <= startMs + kStartSlackMs) {
    scanMs_ = LinuxUptimeMs();
    scan_.clear();
    std::string text;
    for (const std::uint32_t pid : LinuxPids()) {
      if (ReadLinuxFile(L"Z:\\proc\\" + std::to_wstring(pid) + L"\\cmdline", text, kCmdlineLimit)) {
        scan_.push_back({pid, text});
      }
    }
  }
  std::vector<LinuxStart> candidates;
  std::string text;
  for (ScannedProcess& scanned : scan_) {
    if (!CommandLineStartsWith(scanned.cmdline, wanted)) continue;
    // Every instance of a program is a candidate for each of the others, so a look checks each
    // once: a logon that starts 300 instances made 300 x 300 reads of 100 us each per look.
    if (scanned.startMs == kStartUnread) {
      // The look may be older than a pid's reuse, so a candidate is read again before it counts.
      const std::wstring folder = L"Z:\\proc\\" + std::to_wstring(scanned.pid) + L"\\";
      LinuxStat stat;
      const bool same = ReadLinuxFile(folder + L"cmdline", text, kCmdlineLimit) && CommandLineStartsWith(text, wanted) &&
                        ReadLinuxFile(folder + L"stat", text) && ParseStat(text, stat);
      scanned.startMs = same ? static_cast<std::int64_t>(stat.startTicks * 1000 / kClockTicksPerSecond) : kStartGone;
    }
    if (scanned.startMs >= 0) candidates.push_back({scanned.pid, scanned.startMs});
  }
  return PickByStart(candidates, startMs);
}

}  // namespace host::wine
