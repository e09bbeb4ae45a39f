// Control exports of the test double of wevtapi.dll: a channel of boot events (event 100)
// that tests fill, and what the library has done with the module's handles and subscription.
#pragma once

#include <windows.h>

#include <cstdint>

namespace fakewevt {

// How an event carries "BootTime".
enum BootTimeKind : std::uint32_t { kUInt32 = 0, kMissing = 1, kAsString = 2 };

struct Stats {
  std::uint32_t subscriptions;    // EvtSubscribe calls that succeeded
  std::uint32_t delivered;        // callbacks that have returned
  std::int64_t bookmarkRecord;    // record id the last subscription started after; -1 none
  std::uint32_t openHandles;      // handles handed out and not yet closed
  std::uint32_t foreignHandles;   // calls made with a handle this library never handed out
};

// Empties the channel and forgets the counters; the subscription, if any, stays.
using ResetFn = void(__cdecl*)();
// Appends an event (record ids count up from 1); a live subscription gets it delivered on
// its own thread.
using AddEventFn = void(__cdecl*)(std::uint64_t createdFileTime, std::uint32_t bootTime, std::uint32_t kind);
using GetStatsFn = void(__cdecl*)(Stats* stats);
// While set, EvtQuery returns null and leaves the last error alone, as Wine's own does.
using SetQueryFailsFn = void(__cdecl*)(bool fails);
// Waits up to `ms` until `count` deliveries have returned; true when they have.
using WaitDeliveredFn = bool(__cdecl*)(std::uint32_t count, std::uint32_t ms);

}  // namespace fakewevt
