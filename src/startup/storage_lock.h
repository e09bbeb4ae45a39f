// The lock that makes each read-modify-write of one "Storage.json" the only one at that moment,
// across every process and session that writes it (the service, startupctl.exe,
// StartLauncher.exe): a named mutex derived from the file's full path.
#pragma once

#include <windows.h>

#include <string>

#include "common/unique_handle.h"

namespace startup::storage {

inline constexpr wchar_t kStoreLockPrefix[] = L"Global\\Lumera.Storage.";
inline constexpr DWORD kStoreLockWaitMs = 5000;
// Full control for LocalSystem and administrators; waiting and releasing for interactive
// users, so the service, the user's own tools and the service impersonating the user share it.
inline constexpr wchar_t kStoreLockSddl[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x00100001;;;IU)";

// The lock's name for the store at `path`: kStoreLockPrefix and a hash of the lower-cased full
// path (a kernel object's name cannot hold the path's backslashes), so that every spelling of
// one file names one lock.
std::wstring StoreLockName(const std::wstring& path);

// Holds the store's lock for its lifetime, on the thread that made it. A lock whose holder
// died (abandoned) is taken: every write replaces the file whole, so the file is whole.
class CStoreLock {
 public:
  // Waits up to `waitMs` for the lock of the store at `path`; Held() tells whether it came.
  // A lock not taken is logged with its name and the reason.
  explicit CStoreLock(const std::wstring& path, DWORD waitMs = kStoreLockWaitMs);
  ~CStoreLock();
  CStoreLock(const CStoreLock&) = delete;
  CStoreLock& operator=(const CStoreLock&) = delete;

  bool Held() const { return held_; }

 private:
  ky::unique_handle mutex_;
  bool held_ = false;
};

}  // namespace startup::storage
