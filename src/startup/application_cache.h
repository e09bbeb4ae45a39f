// CApplicationCache: what earlier reports learnt about the file an entry starts — its long
// path, version texts and identity — kept with the file's size and last-write time, so an
// unchanged file is neither converted, read nor identified again by later reports.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace startup {

inline constexpr std::size_t kMaxCachedApplications = 4096;

struct CachedApplication {
  std::wstring path;  // the expanded target
  std::wstring location;
  std::wstring description;
  std::wstring company;
  std::wstring product;
  std::wstring qid;
  std::uint64_t size = 0;
  std::uint64_t lastWrite = 0;
};

class CApplicationCache {
 public:
  static CApplicationCache& Instance();

  // The entry for the unexpanded target and location, when its file still has the size and
  // last-write time it had; false otherwise.
  [[nodiscard]] bool Find(const std::wstring& target, const std::wstring& location, CachedApplication& out);
  // Keeps the entry; `entry.size` and `entry.lastWrite` must come from FileStamp taken before
  // the file was read. A full cache starts over.
  void Store(const std::wstring& target, const std::wstring& location, CachedApplication entry);
  void Clear();

  // Size and last-write time of the file; false when it cannot be read.
  [[nodiscard]] static bool FileStamp(const std::wstring& path, std::uint64_t& size, std::uint64_t& lastWrite);

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
  std::map<std::pair<std::wstring, std::wstring>, CachedApplication> entries_;
};

}  // namespace startup
