// Test double of wevtapi.dll: the Wine stand-in's event log (winestandins/wevtapi/event_log.h)
// over an in-memory channel that the test fills, refusing any argument but the ones the
// module must pass, and with the control exports of fake_wevtapi.h.
#include "fake_wevtapi.h"

#include <cwchar>
#include <mutex>
#include <string>

#include "common/unique_handle.h"
#include "wevtapi/event_log.h"

namespace {

// Tests name a record's form as fake_wevtapi.h does; the channel keeps it as it is.
constexpr bool Same(std::uint32_t kind, std::uint32_t form) { return kind == form; }
static_assert(Same(fakewevt::kUInt32, eventlog::kUInt32) && Same(fakewevt::kMissing, eventlog::kMissing) &&
              Same(fakewevt::kAsString, eventlog::kAsString));

std::mutex g_channelLock;
std::vector<eventlog::ChannelRecord> g_channel;
bool g_queryFails = false;

// Named for this process only, so that each subscription can hold a handle of its own.
std::wstring WrittenEventName() { return L"Local\\LumeraFakeWevt.Written." + std::to_wstring(::GetCurrentProcessId()); }

bool Is(LPCWSTR text, const wchar_t* expected) { return text != nullptr && std::wcscmp(text, expected) == 0; }

bool Refuse() {
  ::SetLastError(ERROR_INVALID_PARAMETER);
  return false;
}

}  // namespace

namespace eventlog {

bool ReadChannel(std::vector<ChannelRecord>& out) {
  std::lock_guard hold(g_channelLock);
  out = g_channel;
  return true;
}

HANDLE OpenWrittenEvent() { return ::CreateEventW(nullptr, FALSE, FALSE, WrittenEventName().c_str()); }

bool AcceptQuery(EVT_HANDLE session, LPCWSTR path, LPCWSTR query, DWORD flags) {
  {
    std::lock_guard hold(g_channelLock);
    // As Wine's own EvtQuery does: null, with the last error left alone.
    if (g_queryFails) return false;
  }
  const bool expected = session == nullptr && Is(path, eventlog::kChannel) && Is(query, eventlog::kBootEventQuery) &&
                        flags == (EvtQueryChannelPath | EvtQueryReverseDirection);
  return expected || Refuse();
}

// Starting after a bookmark needs one, as on Windows; one subscription at a time.
bool AcceptSubscription(LPCWSTR path, LPCWSTR query, EVT_HANDLE bookmark, DWORD flags, std::size_t live) {
  if (!Is(path, eventlog::kChannel) || !Is(query, eventlog::kBootEventQuery) || flags != EvtSubscribeStartAfterBookmark || bookmark == nullptr) {
    return Refuse();
  }
  if (live == 0) return true;
  ::SetLastError(ERROR_BUSY);
  return false;
}

}  // namespace eventlog

extern "C" {

void __cdecl FakeWevtReset() {
  {
    std::lock_guard hold(g_channelLock);
    g_channel.clear();
    g_queryFails = false;
  }
  eventlog::ResetCounters();
}

void __cdecl FakeWevtAddEvent(std::uint64_t createdFileTime, std::uint32_t bootTime, std::uint32_t kind) {
  {
    std::lock_guard hold(g_channelLock);
    g_channel.push_back(eventlog::ChannelRecord{g_channel.size() + 1, createdFileTime, bootTime, 0, 0, kind});
  }
  ky::unique_handle written(eventlog::OpenWrittenEvent());
  if (written) ::SetEvent(written.get());
}

void __cdecl FakeWevtGetStats(fakewevt::Stats* stats) {
  if (stats == nullptr) return;
  const eventlog::Counters counters = eventlog::CurrentCounters();
  *stats = fakewevt::Stats{counters.subscriptions, counters.delivered, counters.bookmarkRecord, counters.openHandles,
                           counters.foreignHandles};
}

void __cdecl FakeWevtSetQueryFails(bool fails) {
  std::lock_guard hold(g_channelLock);
  g_queryFails = fails;
}

bool __cdecl FakeWevtWaitDelivered(std::uint32_t count, std::uint32_t ms) { return eventlog::WaitDelivered(count, ms); }

}  // extern "C"
