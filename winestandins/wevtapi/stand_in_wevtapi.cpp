// wevtapi.dll for Wine prefixes, where Wine's own event-log functions are stubs: the eight
// functions the module binds, serving the one channel
// "Microsoft-Windows-Diagnostics-Performance/Operational" (event 100 only) from the store
// that diagperf.exe appends to (see common/boot_event_store.h).
//
//   EvtQuery      channel path and "Event/System[EventID=100]" (or "*"); 0x200 = newest first
//   EvtNext       one event handle per record of the query's snapshot
//   EvtCreateRenderContext / EvtRender   values only: "Event/System/TimeCreated/@SystemTime"
//                 (file time), "Event/System/EventID" (UInt16), "Event/System/EventRecordID"
//                 (UInt64), "Event/EventData/Data[@Name=\"BootTime\"]", "...MainPathBootTime",
//                 "...BootPostBootTime" (UInt32); any other path renders as null
//   EvtCreateBookmark (new, empty) / EvtUpdateBookmark
//   EvtSubscribe  flags 1 (future), 2 (oldest) or 3 (after the bookmark; no bookmark means
//                 from the oldest record); deliveries run on a thread of the subscription,
//                 which looks at the store whenever the writer signals and every kPollMs
//   EvtClose      any handle; closing a subscription returns after its running delivery
//
// Install it into a prefix with winestandins/install.sh, never beside the host: on Windows
// a library of this name in the host's folder would shadow the system's own.
#include <windows.h>
#include <winevt.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/boot_event_store.h"
#include "common/unique_handle.h"

namespace {

constexpr wchar_t kChannel[] = L"Microsoft-Windows-Diagnostics-Performance/Operational";
constexpr wchar_t kQuery[] = L"Event/System[EventID=100]";
constexpr wchar_t kAllQuery[] = L"*";
constexpr wchar_t kTimeCreated[] = L"Event/System/TimeCreated/@SystemTime";
constexpr wchar_t kEventId[] = L"Event/System/EventID";
constexpr wchar_t kRecordId[] = L"Event/System/EventRecordID";
constexpr wchar_t kDataPrefix[] = L"Event/EventData/Data[@Name=\"";
constexpr wchar_t kDataSuffix[] = L"\"]";
constexpr DWORD kPollMs = 500;
constexpr std::size_t kMaxPaths = 256;
constexpr DWORD kErrorChannelNotFound = 15007;  // ERROR_EVT_CHANNEL_NOT_FOUND
constexpr DWORD kErrorInvalidQuery = 15001;     // ERROR_EVT_INVALID_QUERY

using winestandins::BootEventRecord;

enum class Kind { kQuery, kEvent, kContext, kBookmark, kSubscription };

struct Subscription {
  EVT_SUBSCRIBE_CALLBACK callback = nullptr;
  void* context = nullptr;
  std::uint64_t after = 0;  // the last record id delivered (or bookmarked)
  bool futureOnly = false;
  std::wstring store;
  ky::unique_handle stop;
  ky::unique_handle written;
  std::thread worker;
};

struct Object {
  Kind kind;
  std::vector<BootEventRecord> results;
  std::size_t cursor = 0;
  BootEventRecord record{};
  std::vector<std::wstring> paths;
  std::uint64_t bookmark = 0;
  bool bookmarkSet = false;
  std::unique_ptr<Subscription> subscription;
};

std::mutex g_lock;
std::set<Object*> g_objects;

Object* Find(EVT_HANDLE handle, Kind kind) {
  auto* object = static_cast<Object*>(handle);
  if (g_objects.count(object) == 0 || object->kind != kind) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return object;
}

EVT_HANDLE Hand(std::unique_ptr<Object> object) {
  Object* raw = object.release();
  g_objects.insert(raw);
  return raw;
}

void Drop(EVT_HANDLE handle) {
  std::lock_guard hold(g_lock);
  auto* object = static_cast<Object*>(handle);
  if (g_objects.erase(object) != 0) delete object;
}

bool ChannelAndQuery(LPCWSTR path, LPCWSTR query) {
  if (path == nullptr || _wcsicmp(path, kChannel) != 0) {
    ::SetLastError(kErrorChannelNotFound);
    return false;
  }
  if (query != nullptr && std::wcscmp(query, kQuery) != 0 && std::wcscmp(query, kAllQuery) != 0) {
    ::SetLastError(kErrorInvalidQuery);
    return false;
  }
  return true;
}

void RenderValue(const BootEventRecord& record, const std::wstring& path, EVT_VARIANT& out) {
  out = EVT_VARIANT{};
  out.Type = EvtVarTypeNull;
  if (path == kTimeCreated) {
    out.Type = EvtVarTypeFileTime;
    out.FileTimeVal = record.created;
  } else if (path == kEventId) {
    out.Type = EvtVarTypeUInt16;
    out.UInt16Val = 100;
  } else if (path == kRecordId) {
    out.Type = EvtVarTypeUInt64;
    out.UInt64Val = record.id;
  } else {
    const std::wstring prefix = kDataPrefix;
    const std::wstring suffix = kDataSuffix;
    if (path.size() <= prefix.size() + suffix.size() || path.compare(0, prefix.size(), prefix) != 0 ||
        path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0) {
      return;
    }
    const std::wstring name = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
    const std::uint32_t* value = name == L"BootTime"           ? &record.bootTime
                                 : name == L"MainPathBootTime" ? &record.mainPathBootTime
                                 : name == L"BootPostBootTime" ? &record.postBootTime
                                                               : nullptr;
    if (value == nullptr) return;
    out.Type = EvtVarTypeUInt32;
    out.UInt32Val = *value;
  }
}

void Deliver(Subscription* s) {
  std::vector<BootEventRecord> records;
  if (s->futureOnly) {
    if (winestandins::ReadBootEvents(s->store, records) && !records.empty()) s->after = records.back().id;
  }
  const HANDLE waits[] = {s->stop.get(), s->written.get()};
  for (;;) {
    if (winestandins::ReadBootEvents(s->store, records)) {
      for (const BootEventRecord& record : records) {
        if (record.id <= s->after) continue;
        if (::WaitForSingleObject(s->stop.get(), 0) != WAIT_TIMEOUT) return;
        auto event = std::make_unique<Object>();
        event->kind = Kind::kEvent;
        event->record = record;
        EVT_HANDLE handle = nullptr;
        {
          std::lock_guard hold(g_lock);
          handle = Hand(std::move(event));
        }
        s->callback(EvtSubscribeActionDeliver, s->context, handle);
        Drop(handle);
        s->after = record.id;
      }
    }
    const DWORD count = s->written ? 2 : 1;
    if (::WaitForMultipleObjects(count, waits, FALSE, kPollMs) == WAIT_OBJECT_0) return;
  }
}

}  // namespace

extern "C" {

EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE session, LPCWSTR path, LPCWSTR query, DWORD flags) {
  if (session != nullptr || (flags & EvtQueryChannelPath) == 0 || (flags & EvtQueryFilePath) != 0) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (!ChannelAndQuery(path, query)) return nullptr;
  auto object = std::make_unique<Object>();
  object->kind = Kind::kQuery;
  if (!winestandins::ReadBootEvents(winestandins::BootEventStorePath(), object->results)) return nullptr;
  if ((flags & EvtQueryReverseDirection) != 0) {
    std::reverse(object->results.begin(), object->results.end());
  }
  std::lock_guard hold(g_lock);
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtNext(EVT_HANDLE resultSet, DWORD eventArraySize, EVT_HANDLE* eventArray, DWORD, DWORD,
                       PDWORD returned) {
  std::lock_guard hold(g_lock);
  Object* query = Find(resultSet, Kind::kQuery);
  if (query == nullptr) return FALSE;
  if (eventArray == nullptr || returned == nullptr || eventArraySize == 0) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *returned = 0;
  while (*returned < eventArraySize && query->cursor < query->results.size()) {
    auto event = std::make_unique<Object>();
    event->kind = Kind::kEvent;
    event->record = query->results[query->cursor++];
    eventArray[(*returned)++] = Hand(std::move(event));
  }
  if (*returned == 0) {
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return FALSE;
  }
  return TRUE;
}

EVT_HANDLE WINAPI EvtCreateRenderContext(DWORD valuePathsCount, LPCWSTR* valuePaths, DWORD flags) {
  if (flags != EvtRenderContextValues || valuePaths == nullptr || valuePathsCount == 0 ||
      valuePathsCount > kMaxPaths) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kContext;
  for (DWORD i = 0; i < valuePathsCount; ++i) {
    if (valuePaths[i] == nullptr) {
      ::SetLastError(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    object->paths.emplace_back(valuePaths[i]);
  }
  std::lock_guard hold(g_lock);
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtRender(EVT_HANDLE context, EVT_HANDLE fragment, DWORD flags, DWORD bufferSize, PVOID buffer,
                         PDWORD bufferUsed, PDWORD propertyCount) {
  std::lock_guard hold(g_lock);
  Object* values = Find(context, Kind::kContext);
  Object* event = Find(fragment, Kind::kEvent);
  if (values == nullptr || event == nullptr) return FALSE;
  if (flags != EvtRenderEventValues || bufferUsed == nullptr || propertyCount == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::vector<EVT_VARIANT> rendered(values->paths.size());
  for (std::size_t i = 0; i < rendered.size(); ++i) RenderValue(event->record, values->paths[i], rendered[i]);
  const std::size_t needed = rendered.size() * sizeof(EVT_VARIANT);
  *bufferUsed = static_cast<DWORD>(needed);
  *propertyCount = static_cast<DWORD>(rendered.size());
  if (buffer == nullptr || bufferSize < needed) {
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  std::memcpy(buffer, rendered.data(), needed);
  return TRUE;
}

EVT_HANDLE WINAPI EvtCreateBookmark(LPCWSTR bookmarkXml) {
  if (bookmarkXml != nullptr) {
    // Persisted bookmarks are not kept by this stand-in.
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kBookmark;
  std::lock_guard hold(g_lock);
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtUpdateBookmark(EVT_HANDLE bookmark, EVT_HANDLE event) {
  std::lock_guard hold(g_lock);
  Object* mark = Find(bookmark, Kind::kBookmark);
  Object* record = Find(event, Kind::kEvent);
  if (mark == nullptr || record == nullptr) return FALSE;
  mark->bookmark = record->record.id;
  mark->bookmarkSet = true;
  return TRUE;
}

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE session, HANDLE signalEvent, LPCWSTR path, LPCWSTR query,
                               EVT_HANDLE bookmark, PVOID context, EVT_SUBSCRIBE_CALLBACK callback, DWORD flags) {
  const DWORD origin = flags & EvtSubscribeOriginMask;
  // Only the callback form is served; a signalled event handle without one is not.
  if (session != nullptr || signalEvent != nullptr || callback == nullptr || origin == 0) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (!ChannelAndQuery(path, query)) return nullptr;
  auto object = std::make_unique<Object>();
  object->kind = Kind::kSubscription;
  object->subscription = std::make_unique<Subscription>();
  Subscription& s = *object->subscription;
  s.callback = callback;
  s.context = context;
  s.futureOnly = origin == EvtSubscribeToFutureEvents;
  s.store = winestandins::BootEventStorePath();
  s.stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  s.written.reset(::CreateEventW(nullptr, FALSE, FALSE, winestandins::kWrittenEventName));
  if (!s.stop) return nullptr;
  std::lock_guard hold(g_lock);
  if (origin == EvtSubscribeStartAfterBookmark && bookmark != nullptr) {
    Object* mark = Find(bookmark, Kind::kBookmark);
    if (mark == nullptr) return nullptr;
    s.after = mark->bookmarkSet ? mark->bookmark : 0;
  }
  s.worker = std::thread(Deliver, &s);
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtClose(EVT_HANDLE handle) {
  std::unique_lock hold(g_lock);
  auto* object = static_cast<Object*>(handle);
  if (g_objects.count(object) == 0) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  g_objects.erase(object);
  hold.unlock();
  if (object->kind == Kind::kSubscription) {
    Subscription& s = *object->subscription;
    ::SetEvent(s.stop.get());
    if (s.worker.get_id() == std::this_thread::get_id()) {
      // Closed from its own callback: the thread cannot wait for itself, so it is let go.
      s.worker.detach();
      object->subscription.release();
    } else if (s.worker.joinable()) {
      s.worker.join();
    }
  }
  delete object;
  return TRUE;
}

}  // extern "C"
