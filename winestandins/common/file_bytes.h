// Whole files as bytes for the staging tools: read with a bound, written so that a failure
// part-way leaves the old file whole (the new content goes beside it and then replaces it in
// one step).
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace winestandins {

// The whole file; 0, ERROR_FILE_TOO_LARGE (nothing read) when it is larger than `maxBytes`, or
// the Windows error of opening or reading it, with `bytes` untouched on failure.
[[nodiscard]] DWORD ReadBoundedFile(const std::wstring& path, std::size_t maxBytes, std::vector<std::uint8_t>& bytes);

// Writes `bytes` to "<path>.new", flushes it and moves it over `path`; 0 or the Windows error,
// with `path` as it was and no "<path>.new" left behind on failure.
[[nodiscard]] DWORD ReplaceFileContent(const std::wstring& path, const std::vector<std::uint8_t>& bytes);

}  // namespace winestandins
