// The persistent cache of file identities: one record per (full path, size, last-write time),
// appended to a file that only SYSTEM and Administrators may open. The file is read once per
// process, whole and bounded; any record that does not check out discards the whole file.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "common/unique_handle.h"
#include "file_hash.h"

namespace kyfastdb {

inline constexpr std::size_t kMaxCacheBytes = 32 * 1024 * 1024;
inline constexpr std::uint32_t kMaxPathChars = 32767;

struct FileStamp {
  std::uint64_t size = 0;
  std::uint64_t lastWrite = 0;
};

class HashCache {
 public:
  explicit HashCache(std::wstring file) : file_(std::move(file)) {}

  // The digest kept for the key at this stamp; false when none or the stamp differs.
  bool Find(const std::wstring& key, const FileStamp& stamp, Digest& digest);
  // Keeps the digest in memory and appends it to the file (a failed write only loses it).
  void Add(const std::wstring& key, const FileStamp& stamp, const Digest& digest);

  const std::wstring& File() const { return file_; }

 private:
  struct Entry {
    FileStamp stamp;
    Digest digest;
  };

  void LoadOnce();
  bool Parse(const std::string& bytes);
  void Discard();
  void OpenForAppend();

  std::wstring file_;
  SRWLOCK lock_ = SRWLOCK_INIT;
  std::atomic<bool> loaded_{false};
  std::size_t fileBytes_ = 0;
  std::unordered_map<std::wstring, Entry> entries_;
  ky::unique_file appendFile_;  // opened on the first append and kept: one open per record is slow
};

// The cache's file: ProgramData\Nexalon\Lumera\KYFastDB.cache, or beside `libraryFolder`.
std::wstring DefaultCacheFile(const std::wstring& libraryFolder);

// True when the file's DACL allows nothing to anyone but SYSTEM and Administrators.
bool RestrictedToAdministrators(HANDLE file);

}  // namespace kyfastdb
