// What the launcher already started in this logon, so that running it twice starts nothing
// twice. Kept in a file of the user's local application-data folder named after the logon
// session, not in a named object: a named object dies with the launcher that made it, and a
// process kept alive all logon only to hold one would be a cost the user pays for nothing.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/unique_handle.h"
#include "startup/startup_item.h"

namespace startlauncher {

// Logon ids come back after a restart: a file from another boot of the same id is stale.
inline constexpr std::int64_t kSameBootToleranceMs = 5000;
inline constexpr std::size_t kMaxMarkerBytes = 64 * 1024;

// The logon session of this process's token, as 16 hex digits; "0" when it cannot be read.
std::wstring ThisLogonId();
// The system's start time in ms since 1601: the wall clock less the uptime.
std::int64_t SystemStartMs();
// A stable key of an entry: its section, location and name, lower-cased, hashed.
std::wstring EntryKey(const char* category, const startup::StartupItem& item);

class CLogonMarker {
 public:
  // The marker of `logonId` in `folder` (ending in a backslash); reads what this boot's logon
  // recorded, and ignores a file of another boot or one beyond kMaxMarkerBytes.
  CLogonMarker(const std::wstring& folder, const std::wstring& logonId, std::int64_t bootStartMs);

  [[nodiscard]] bool Contains(const std::wstring& key) const;
  // Records the key and rewrites the file whole; 0 or the write's error, logged.
  [[nodiscard]] std::uint32_t Add(const std::wstring& key);
  const std::wstring& Path() const { return path_; }

 private:
  std::wstring path_;
  std::int64_t bootStartMs_;
  std::vector<std::wstring> keys_;
};

// Held by the one launcher of a logon that starts delayed entries; a second one finds it taken.
class CLogonRunLock {
 public:
  explicit CLogonRunLock(const std::wstring& logonId);
  ~CLogonRunLock();
  CLogonRunLock(const CLogonRunLock&) = delete;
  CLogonRunLock& operator=(const CLogonRunLock&) = delete;
  bool Held() const { return held_; }

 private:
  ky::unique_handle mutex_;
  bool held_ = false;
};

}  // namespace startlauncher
