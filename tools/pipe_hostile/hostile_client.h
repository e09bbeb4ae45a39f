// One hostile client of "boottimepipe": it connects, speaks the connector's framing badly on
// purpose (random, truncated, oversized and lying frames), and drops its connections at odd
// moments, for as long as the shared frame budget lasts.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace hostile {

struct HostileTotals {
  std::atomic<std::uint64_t> frames{0};        // frames written whole
  std::atomic<std::uint64_t> connections{0};   // connections opened
  std::atomic<std::uint64_t> asked{0};         // accepted frames that asked for a reply and were waited for
  std::atomic<std::uint64_t> replied{0};       // of those, the ones the server replied to
};

// Runs until `totals.frames` reaches `budget` or `stop` is set.
void RunHostileClient(std::uint64_t seed, std::uint64_t budget, HANDLE stop, HostileTotals& totals);

}  // namespace hostile
