// The eight functions of wevtapi.dll that the module binds, over the one channel
// "Microsoft-Windows-Diagnostics-Performance/Operational" (event 100 only), written once for
// two libraries that differ only in where the channel's records come from: the Wine stand-in
// (store_channel.cpp, the store diagperf.exe appends to) and the tests' double
// (tests/boottime/fake_wevtapi, records the test adds, and stricter arguments).
//
//   EvtQuery      channel path and "Event/System[EventID=100]" (or "*"); 0x200 = newest first
//   EvtNext       one event handle per record of the query's snapshot
//   EvtCreateRenderContext / EvtRender   values only: "Event/System/TimeCreated/@SystemTime"
//                 (file time), "Event/System/EventID" (UInt16), "Event/System/EventRecordID"
//                 (UInt64), "Event/EventData/Data[@Name=\"BootTime\"]" (UInt32, or as the
//                 record's form says), "...MainPathBootTime", "...BootPostBootTime" (UInt32);
//                 any other path renders as null
//   EvtCreateBookmark (new, empty) / EvtUpdateBookmark
//   EvtSubscribe  flags 1 (future), 2 (oldest) or 3 (after the bookmark; no bookmark means
//                 from the oldest record); deliveries run on a thread of the subscription,
//                 which looks at the channel whenever its source signals and every kPollMs
//   EvtClose      any handle; closing a subscription returns after its running delivery
#pragma once

#include <windows.h>
#include <winevt.h>

#include <cstdint>
#include <vector>

namespace eventlog {

inline constexpr wchar_t kChannel[] = L"Microsoft-Windows-Diagnostics-Performance/Operational";
inline constexpr wchar_t kBootEventQuery[] = L"Event/System[EventID=100]";

// How a record carries "BootTime".
enum BootTimeForm : std::uint32_t { kUInt32 = 0, kMissing = 1, kAsString = 2 };

struct ChannelRecord {
  std::uint64_t id = 0;       // counts up from 1
  std::uint64_t created = 0;  // file time (UTC)
  std::uint32_t bootTime = 0;
  std::uint32_t mainPathBootTime = 0;
  std::uint32_t postBootTime = 0;
  std::uint32_t bootTimeForm = kUInt32;
};

// What the library has done since the last ResetCounters, for a test to check.
struct Counters {
  std::uint32_t subscriptions = 0;   // EvtSubscribe calls that succeeded
  std::uint32_t delivered = 0;       // callbacks that have returned
  std::int64_t bookmarkRecord = -1;  // record id the last subscription started after; -1 none
  std::uint32_t openHandles = 0;     // handles handed out and not yet closed
  std::uint32_t foreignHandles = 0;  // calls made with a handle this library never handed out
};
[[nodiscard]] Counters CurrentCounters();
// Forgets every count but the open handles.
void ResetCounters();
// Waits up to `ms` until `count` deliveries have returned; true when they have.
[[nodiscard]] bool WaitDelivered(std::uint32_t count, std::uint32_t ms);

// Supplied by each library (the source of the channel):

// Every record of the channel, oldest first; false when it cannot be read.
[[nodiscard]] bool ReadChannel(std::vector<ChannelRecord>& out);
// A new handle to an auto-reset event the source sets after each new record, or null when
// subscriptions only look every kPollMs.
[[nodiscard]] HANDLE OpenWrittenEvent();
// Checks EvtQuery's arguments beyond the shared ones; false (the last error set as the caller
// should see it) refuses the query.
[[nodiscard]] bool AcceptQuery(EVT_HANDLE session, LPCWSTR path, LPCWSTR query, DWORD flags);
// The same for EvtSubscribe; `live` is how many subscriptions are open.
[[nodiscard]] bool AcceptSubscription(LPCWSTR path, LPCWSTR query, EVT_HANDLE bookmark, DWORD flags,
                                      std::size_t live);

}  // namespace eventlog
