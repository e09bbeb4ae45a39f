// A well-behaved client of "boottimepipe": the module's own "boottimecommclient" object, as
// boottime.exe uses it, asking the four queries in turn, synchronously and asynchronously.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

#include "common/module_library.h"

namespace hostile {

struct GoodTotals {
  std::atomic<std::uint64_t> asked{0};
  std::atomic<std::uint64_t> answered{0};
  std::atomic<std::uint64_t> notYetKnown{0};  // answered "1 not yet known"
};

// Queries until `stop` is set (at least one query). Returns false when the client could not
// be created or connected; that client's queries then count as asked and unanswered.
bool RunGoodClient(const ky::KyFactoryLibrary& module, HANDLE stop, GoodTotals& totals);

}  // namespace hostile
