// A flood of clients beyond a pipe's session cap: each opens "boottimepipe" as any user may and
// keeps its session without a word, until the server refuses the ones over its cap.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "common/unique_handle.h"

namespace hostile {

struct FloodTotals {
  std::uint64_t opened = 0;   // clients whose open of the pipe succeeded
  std::uint64_t held = 0;     // welcomed with an identity: sessions the server took
  std::uint64_t refused = 0;  // welcomed with ERROR_PIPE_BUSY, as a server at its cap does
  std::uint64_t other = 0;    // anything else (no welcome, a broken pipe)
};

class SessionFlood {
 public:
  // Opens `clients` connections one after the other and sorts each by its welcome.
  void Open(int clients, HANDLE stop);
  // Ends every session the flood holds.
  void Release() { held_.clear(); }
  const FloodTotals& Totals() const { return totals_; }

 private:
  FloodTotals totals_;
  std::vector<ky::unique_file> held_;
};

// How many times `text` occurs in the files of `folder` (the host's log and its rotated copy).
std::uint64_t CountInLogs(const std::wstring& folder, const char* text);

}  // namespace hostile
