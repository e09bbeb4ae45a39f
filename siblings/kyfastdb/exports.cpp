// KYFastDB.dll: file identities (SHA-256 of the content), remembered across processes.
#include <windows.h>

#include <cstring>
#include <cwctype>
#include <new>
#include <string>
#include <vector>

#include "common/module_library.h"
#include "common/unique_handle.h"
#include "file_hash.h"
#include "hash_cache.h"
#include "lumera/kyfastdb.h"

namespace {

kyfastdb::HashCache& Cache() {
  static kyfastdb::HashCache cache(kyfastdb::DefaultCacheFile(ky::ThisModuleFolder()));
  return cache;
}

// The cache key: the full path, upper-cased, since Windows names files without regard to case.
std::wstring CacheKey(const wchar_t* path) {
  std::vector<wchar_t> full(kyfastdb::kMaxPathChars + 1);
  const DWORD length = ::GetFullPathNameW(path, static_cast<DWORD>(full.size()), full.data(), nullptr);
  std::wstring key = (length == 0 || length >= full.size()) ? std::wstring(path) : std::wstring(full.data(), length);
  for (auto& c : key) c = static_cast<wchar_t>(std::towupper(c));
  return key;
}

std::uint32_t GetFileData(const wchar_t* path, std::int64_t file, std::uint8_t* buffer, std::uint32_t bufferBytes) {
  if (path == nullptr || *path == L'\0' || buffer == nullptr || file != kyfastdb::kOpenByPath) {
    return ERROR_INVALID_PARAMETER;
  }
  if (bufferBytes < kyfastdb::kSha256Bytes) return ERROR_INSUFFICIENT_BUFFER;

  ky::unique_file handle(::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!handle.valid()) return ky::LastErrorOr(ERROR_FILE_NOT_FOUND);
  BY_HANDLE_FILE_INFORMATION info{};
  if (!::GetFileInformationByHandle(handle.get(), &info)) return ky::LastErrorOr(ERROR_GEN_FAILURE);
  if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return ERROR_ACCESS_DENIED;
  const kyfastdb::FileStamp stamp{(static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow,
                                  ky::FileTimeToU64(info.ftLastWriteTime)};

  const std::wstring key = CacheKey(path);
  kyfastdb::Digest digest{};
  if (!Cache().Find(key, stamp, digest)) {
    const std::uint32_t result = kyfastdb::HashFile(handle.get(), digest);
    if (result != 0) return result;
    Cache().Add(key, stamp, digest);
  }
  std::memcpy(buffer, digest.data(), digest.size());
  return 0;
}

}  // namespace

extern "C" std::uint64_t __cdecl FastDBGetFileData(wchar_t* path, std::int64_t file, std::uint8_t* buffer,
                                                   std::uint32_t bufferBytes) {
  try {
    return GetFileData(path, file, buffer, bufferBytes);
  } catch (const std::bad_alloc&) {
    return ERROR_OUTOFMEMORY;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}
