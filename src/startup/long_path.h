// The long form of a file path, as GetLongPathNameW gives it, with each folder's conversion
// remembered: GetLongPathNameW looks every component of the path up again on every call, and
// the entries of one report mostly share a few folders.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace startup {

inline constexpr std::size_t kMaxRememberedFolders = 256;

// 0 with `out` set, or GetLongPathNameW's error (ERROR_FILENAME_EXCED_RANGE when the result
// would not fit 32767 characters) with `out` untouched.
[[nodiscard]] std::uint32_t LongPathName(const std::wstring& path, std::wstring& out);

// Forgets every folder's conversion.
void ForgetLongFolders();

}  // namespace startup
