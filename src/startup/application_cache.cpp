#include "startup/application_cache.h"

#include "common/module_library.h"

namespace startup {

CApplicationCache& CApplicationCache::Instance() {
  static CApplicationCache cache;
  return cache;
}

bool CApplicationCache::FileStamp(const std::wstring& path, std::uint64_t& size, std::uint64_t& lastWrite) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return false;
  size = (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  lastWrite = ky::FileTimeToU64(data.ftLastWriteTime);
  return true;
}

bool CApplicationCache::Find(const std::wstring& target, const std::wstring& location, CachedApplication& out) {
  ::AcquireSRWLockShared(&lock_);
  auto it = entries_.find({target, location});
  const bool found = it != entries_.end();
  if (found) out = it->second;
  ::ReleaseSRWLockShared(&lock_);
  std::uint64_t size = 0, lastWrite = 0;
  return found && FileStamp(out.path, size, lastWrite) && size == out.size && lastWrite == out.lastWrite;
}

void CApplicationCache::Store(const std::wstring& target, const std::wstring& location, CachedApplication entry) {
  ::AcquireSRWLockExclusive(&lock_);
  if (entries_.size() >= kMaxCachedApplications) entries_.clear();
  entries_[{target, location}] = std::move(entry);
  ::ReleaseSRWLockExclusive(&lock_);
}

void CApplicationCache::Clear() {
  ::AcquireSRWLockExclusive(&lock_);
  entries_.clear();
  ::ReleaseSRWLockExclusive(&lock_);
}

}  // namespace startup
