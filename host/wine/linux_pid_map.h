// Finds the Linux process that runs a Windows process under Wine. Wine gives no query for it:
// the Linux process shows the Windows image path as the first word of its command line, and
// where several do (two instances of one program) their start times tell them apart.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace host::wine {

// A Linux process that may run a given Windows process, with its start on the Linux clock.
struct LinuxStart {
  std::uint32_t pid = 0;
  std::int64_t startMs = 0;
};

// Of `candidates`, the one running the Windows process created at `createdMs` (Linux clock):
// the latest started by then, because Wine's creation stamp trails the Linux start by up to
// 154 ms under load (measured), which can put a next instance's start nearer to it; the
// nearest when none started by then. 0 when there is no candidate.
[[nodiscard]] std::uint32_t PickByStart(const std::vector<LinuxStart>& candidates, std::int64_t createdMs);

class LinuxPidMap {
 public:
  // The Linux pid for the Windows process `windowsPid`, created at `created` (file time);
  // `image` gives its image path (a Windows path) and is called only when the cache has no
  // answer. 0 when none matches. Results are cached per Windows pid and creation time; a
  // miss is retried after kRetryMs. Thread-safe.
  [[nodiscard]] std::uint32_t Find(DWORD windowsPid, std::uint64_t created, const std::function<std::wstring()>& image);
  // Forgets a mapping whose Linux process can no longer be read.
  void Forget(DWORD windowsPid);

  static constexpr DWORD kRetryMs = 2000;

 private:
  struct Entry {
    std::uint64_t created = 0;
    std::uint32_t linuxPid = 0;
    DWORD triedTick = 0;
  };
  static constexpr std::int64_t kStartUnread = -1;
  static constexpr std::int64_t kStartGone = -2;
  struct ScannedProcess {
    std::uint32_t pid = 0;
    std::string cmdline;
    std::int64_t startMs = kStartUnread;  // read once a look, when first a candidate
  };
  std::uint32_t Search(std::uint64_t created, const std::wstring& image);

  std::vector<ScannedProcess> scan_;  // every Linux process's command line, at scanMs_
  std::int64_t scanMs_ = 0;           // on the Linux clock

  std::mutex lock_;
  std::map<DWORD, Entry> cache_;
};

}  // namespace host::wine
