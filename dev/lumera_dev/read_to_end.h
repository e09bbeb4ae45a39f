// Reading an open file to its end with a bound, for the development readers of files that do
// not report their size honestly: Linux's /proc files (size 0) and the stand-in event store,
// which its writer may append to while it is read. Header-only.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace lumera::dev {

// Appends what `file` holds from its position to its end to `out`, which never grows beyond
// `limit` bytes (the rest is left unread). False when a read fails, with what was read before kept.
inline bool ReadToEnd(HANDLE file, std::size_t limit, std::string& out) {
  char buffer[16384];
  while (out.size() < limit) {
    DWORD read = 0;
    const DWORD want = static_cast<DWORD>(std::min<std::size_t>(sizeof buffer, limit - out.size()));
    if (!::ReadFile(file, buffer, want, &read, nullptr)) return false;
    if (read == 0) break;
    out.append(buffer, read);
  }
  return true;
}

}  // namespace lumera::dev
