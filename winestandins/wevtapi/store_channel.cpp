// wevtapi.dll for Wine prefixes, where Wine's own event-log functions are stubs (event_log.h
// lists what it serves), with the channel read from the store that diagperf.exe appends to
// (see common/boot_event_store.h).
//
// Install it into a prefix with winestandins/install.sh, never beside the host: on Windows
// a library of this name in the host's folder would shadow the system's own.
#include "common/boot_event_store.h"
#include "wevtapi/event_log.h"

namespace eventlog {

bool ReadChannel(std::vector<ChannelRecord>& out) {
  std::vector<winestandins::BootEventRecord> records;
  if (!winestandins::ReadBootEvents(winestandins::BootEventStorePath(), records)) return false;
  out.clear();
  for (const winestandins::BootEventRecord& record : records) {
    out.push_back(ChannelRecord{record.id, record.created, record.bootTime, record.mainPathBootTime,
                                record.postBootTime, kUInt32});
  }
  return true;
}

HANDLE OpenWrittenEvent() { return ::CreateEventW(nullptr, FALSE, FALSE, winestandins::kWrittenEventName); }

bool AcceptQuery(EVT_HANDLE, LPCWSTR, LPCWSTR, DWORD) { return true; }

bool AcceptSubscription(LPCWSTR, LPCWSTR, EVT_HANDLE, DWORD, std::size_t) { return true; }

}  // namespace eventlog
