// Finds the Linux process that runs a Windows process under Wine. Wine gives no query for it:
// the Linux process shows the Windows image path as the first word of its command line, and
// where several do (two instances of one program) the one whose start is nearest to the
// Windows process's creation time is taken.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace host::wine {

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
  std::uint32_t Search(std::uint64_t created, const std::wstring& image) const;

  std::mutex lock_;
  std::map<DWORD, Entry> cache_;
};

}  // namespace host::wine
