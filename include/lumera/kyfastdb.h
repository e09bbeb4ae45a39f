// KYFastDB.dll: the product's file-reputation library, loaded at run time. Its one export used
// here gives a file's identity, the SHA-256 of its content.
//
// Results are remembered in a cache file, "KYFastDB.cache" in the ProgramData folder
// "Nexalon\Lumera" (beside the library when that folder cannot be had), keyed by the file's
// full path, size and last-write time, so an unchanged file is hashed once across processes.
// The cache file grants access to SYSTEM and Administrators only; a cache that does not read
// back whole and consistent is discarded and rebuilt, never trusted.
#pragma once

#include <cstdint>

namespace kyfastdb {

inline constexpr char kGetFileDataName[] = "FastDBGetFileData";
inline constexpr wchar_t kLibraryName[] = L"KYFastDB.dll";
inline constexpr wchar_t kCacheFileName[] = L"KYFastDB.cache";

inline constexpr std::int64_t kOpenByPath = -1;  // `file` value: open the file named by `path`
inline constexpr std::uint32_t kSha256Bytes = 32;

// Fills the first 32 bytes of `buffer` with the SHA-256 of the file's content. `path` is the
// caller's own copy; `file` must be kOpenByPath. The low 32 bits of the result are 0 or a
// Windows error code: 2/3 file or folder missing, 5 access denied, 122 when `bufferBytes` is
// below 32, 87 for a null path or buffer or another `file` value; the buffer is untouched
// on failure. Thread-safe.
using FastDBGetFileDataFn = std::uint64_t(__cdecl*)(wchar_t* path, std::int64_t file, std::uint8_t* buffer,
                                                    std::uint32_t bufferBytes);

}  // namespace kyfastdb
