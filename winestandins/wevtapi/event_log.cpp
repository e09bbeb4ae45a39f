#include "wevtapi/event_log.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <cwchar>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "common/unique_handle.h"

namespace eventlog {
namespace {

constexpr wchar_t kAllQuery[] = L"*";
constexpr DWORD kPollMs = 500;
constexpr std::size_t kMaxPaths = 256;
constexpr DWORD kErrorChannelNotFound = 15007;  // ERROR_EVT_CHANNEL_NOT_FOUND
constexpr DWORD kErrorInvalidQuery = 15001;     // ERROR_EVT_INVALID_QUERY
// The event's own values besides its data items, each of which is named between
// kDataPrefix and kDataSuffix.
constexpr wchar_t kTimeCreated[] = L"Event/System/TimeCreated/@SystemTime";
constexpr wchar_t kEventId[] = L"Event/System/EventID";
constexpr wchar_t kRecordId[] = L"Event/System/EventRecordID";
constexpr wchar_t kDataPrefix[] = L"Event/EventData/Data[@Name=\"";
constexpr wchar_t kDataSuffix[] = L"\"]";

enum class Kind { kQuery, kEvent, kContext, kBookmark, kSubscription };

struct Subscription {
  EVT_SUBSCRIBE_CALLBACK callback = nullptr;
  void* context = nullptr;
  std::uint64_t after = 0;  // the last record id delivered (or bookmarked)
  bool futureOnly = false;
  ky::unique_handle stop;
  ky::unique_handle written;
  std::thread worker;
};

struct Object {
  Kind kind;
  std::vector<ChannelRecord> results;
  std::size_t cursor = 0;
  ChannelRecord record{};
  std::vector<std::wstring> paths;
  std::uint64_t bookmark = 0;
  bool bookmarkSet = false;
  std::unique_ptr<Subscription> subscription;
};

std::mutex g_lock;
std::condition_variable g_delivered;
std::set<Object*> g_objects;
std::size_t g_liveSubscriptions = 0;
Counters g_counters;

// The object behind a handle this library handed out, or null (counted) for any other.
// Caller holds g_lock.
Object* Find(EVT_HANDLE handle, Kind kind) {
  auto* object = static_cast<Object*>(handle);
  if (g_objects.count(object) == 0 || object->kind != kind) {
    ++g_counters.foreignHandles;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return object;
}

// Caller holds g_lock.
EVT_HANDLE Hand(std::unique_ptr<Object> object) {
  Object* raw = object.release();
  g_objects.insert(raw);
  return raw;
}

EVT_HANDLE NewEvent(const ChannelRecord& record) {
  auto event = std::make_unique<Object>();
  event->kind = Kind::kEvent;
  event->record = record;
  return Hand(std::move(event));
}

bool ChannelAndQuery(LPCWSTR path, LPCWSTR query) {
  if (path == nullptr || _wcsicmp(path, kChannel) != 0) {
    ::SetLastError(kErrorChannelNotFound);
    return false;
  }
  if (query != nullptr && std::wcscmp(query, kBootEventQuery) != 0 && std::wcscmp(query, kAllQuery) != 0) {
    ::SetLastError(kErrorInvalidQuery);
    return false;
  }
  return true;
}

// One value of `record` for `path`; a string's text is added to `strings`.
void RenderValue(const ChannelRecord& record, const std::wstring& path, EVT_VARIANT& out,
                 std::vector<std::wstring>& strings) {
  out = EVT_VARIANT{};
  out.Type = EvtVarTypeNull;
  if (path == kTimeCreated) {
    out.Type = EvtVarTypeFileTime;
    out.FileTimeVal = record.created;
    return;
  }
  if (path == kEventId) {
    out.Type = EvtVarTypeUInt16;
    out.UInt16Val = 100;
    return;
  }
  if (path == kRecordId) {
    out.Type = EvtVarTypeUInt64;
    out.UInt64Val = record.id;
    return;
  }
  const std::wstring prefix = kDataPrefix;
  const std::wstring suffix = kDataSuffix;
  if (path.size() <= prefix.size() + suffix.size() || path.compare(0, prefix.size(), prefix) != 0 ||
      path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return;
  }
  const std::wstring name = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
  const bool bootTime = name == L"BootTime";
  const std::uint32_t* value = bootTime                      ? &record.bootTime
                               : name == L"MainPathBootTime" ? &record.mainPathBootTime
                               : name == L"BootPostBootTime" ? &record.postBootTime
                                                             : nullptr;
  if (value == nullptr || (bootTime && record.bootTimeForm == kMissing)) return;
  if (bootTime && record.bootTimeForm == kAsString) {
    out.Type = EvtVarTypeString;
    strings.push_back(std::to_wstring(*value));
    return;
  }
  out.Type = EvtVarTypeUInt32;
  out.UInt32Val = *value;
}

void Deliver(Subscription* s) {
  std::vector<ChannelRecord> records;
  if (s->futureOnly) {
    if (ReadChannel(records) && !records.empty()) s->after = records.back().id;
  }
  const HANDLE waits[] = {s->stop.get(), s->written.get()};
  for (;;) {
    if (ReadChannel(records)) {
      for (const ChannelRecord& record : records) {
        if (record.id <= s->after) continue;
        if (::WaitForSingleObject(s->stop.get(), 0) != WAIT_TIMEOUT) return;
        EVT_HANDLE handle = nullptr;
        {
          std::lock_guard hold(g_lock);
          handle = NewEvent(record);
        }
        s->callback(EvtSubscribeActionDeliver, s->context, handle);
        {
          std::lock_guard hold(g_lock);
          if (g_objects.erase(static_cast<Object*>(handle)) != 0) delete static_cast<Object*>(handle);
          ++g_counters.delivered;
        }
        g_delivered.notify_all();
        s->after = record.id;
      }
    }
    const DWORD count = s->written ? 2 : 1;
    if (::WaitForMultipleObjects(count, waits, FALSE, kPollMs) == WAIT_OBJECT_0) return;
  }
}

}  // namespace

Counters CurrentCounters() {
  std::lock_guard hold(g_lock);
  Counters counters = g_counters;
  counters.openHandles = static_cast<std::uint32_t>(g_objects.size());
  return counters;
}

void ResetCounters() {
  std::lock_guard hold(g_lock);
  g_counters = Counters{};
}

bool WaitDelivered(std::uint32_t count, std::uint32_t ms) {
  std::unique_lock hold(g_lock);
  return g_delivered.wait_for(hold, std::chrono::milliseconds(ms), [&] { return g_counters.delivered >= count; });
}

}  // namespace eventlog

using eventlog::ChannelRecord;
using eventlog::Kind;
using eventlog::Object;
using eventlog::g_lock;
using eventlog::g_objects;

extern "C" {

EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE session, LPCWSTR path, LPCWSTR query, DWORD flags) {
  if (!eventlog::AcceptQuery(session, path, query, flags)) return nullptr;
  if (session != nullptr || (flags & EvtQueryChannelPath) == 0 || (flags & EvtQueryFilePath) != 0) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (!eventlog::ChannelAndQuery(path, query)) return nullptr;
  auto object = std::make_unique<Object>();
  object->kind = Kind::kQuery;
  if (!eventlog::ReadChannel(object->results)) return nullptr;
  if ((flags & EvtQueryReverseDirection) != 0) {
    std::reverse(object->results.begin(), object->results.end());
  }
  std::lock_guard hold(g_lock);
  return eventlog::Hand(std::move(object));
}

WINBOOL WINAPI EvtNext(EVT_HANDLE resultSet, DWORD eventArraySize, EVT_HANDLE* eventArray, DWORD, DWORD,
                       PDWORD returned) {
  std::lock_guard hold(g_lock);
  Object* query = eventlog::Find(resultSet, Kind::kQuery);
  if (query == nullptr) return FALSE;
  if (eventArray == nullptr || returned == nullptr || eventArraySize == 0) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *returned = 0;
  while (*returned < eventArraySize && query->cursor < query->results.size()) {
    eventArray[(*returned)++] = eventlog::NewEvent(query->results[query->cursor++]);
  }
  if (*returned == 0) {
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return FALSE;
  }
  return TRUE;
}

EVT_HANDLE WINAPI EvtCreateRenderContext(DWORD valuePathsCount, LPCWSTR* valuePaths, DWORD flags) {
  if (flags != EvtRenderContextValues || valuePaths == nullptr || valuePathsCount == 0 ||
      valuePathsCount > eventlog::kMaxPaths) {
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
  return eventlog::Hand(std::move(object));
}

WINBOOL WINAPI EvtRender(EVT_HANDLE context, EVT_HANDLE fragment, DWORD flags, DWORD bufferSize, PVOID buffer,
                         PDWORD bufferUsed, PDWORD propertyCount) {
  std::lock_guard hold(g_lock);
  Object* values = eventlog::Find(context, Kind::kContext);
  Object* event = eventlog::Find(fragment, Kind::kEvent);
  if (values == nullptr || event == nullptr) return FALSE;
  if (flags != EvtRenderEventValues || bufferUsed == nullptr || propertyCount == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::vector<EVT_VARIANT> rendered(values->paths.size());
  std::vector<std::wstring> strings;
  std::size_t needed = rendered.size() * sizeof(EVT_VARIANT);
  for (std::size_t i = 0; i < rendered.size(); ++i) {
    const std::size_t before = strings.size();
    eventlog::RenderValue(event->record, values->paths[i], rendered[i], strings);
    if (strings.size() != before) needed += (strings.back().size() + 1) * sizeof(wchar_t);
  }
  *bufferUsed = static_cast<DWORD>(needed);
  *propertyCount = static_cast<DWORD>(rendered.size());
  if (buffer == nullptr || bufferSize < needed) {
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  // Strings follow the values in the caller's buffer, as the event log lays them out.
  auto* out = static_cast<BYTE*>(buffer);
  auto* text = reinterpret_cast<wchar_t*>(out + rendered.size() * sizeof(EVT_VARIANT));
  std::size_t next = 0;
  for (EVT_VARIANT& value : rendered) {
    if (value.Type != EvtVarTypeString) continue;
    const std::wstring& s = strings[next++];
    std::memcpy(text, s.c_str(), (s.size() + 1) * sizeof(wchar_t));
    value.StringVal = text;
    text += s.size() + 1;
  }
  std::memcpy(out, rendered.data(), rendered.size() * sizeof(EVT_VARIANT));
  return TRUE;
}

EVT_HANDLE WINAPI EvtCreateBookmark(LPCWSTR bookmarkXml) {
  if (bookmarkXml != nullptr) {
    // Persisted bookmarks are not kept by this library.
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kBookmark;
  std::lock_guard hold(g_lock);
  return eventlog::Hand(std::move(object));
}

WINBOOL WINAPI EvtUpdateBookmark(EVT_HANDLE bookmark, EVT_HANDLE event) {
  std::lock_guard hold(g_lock);
  Object* mark = eventlog::Find(bookmark, Kind::kBookmark);
  Object* record = eventlog::Find(event, Kind::kEvent);
  if (mark == nullptr || record == nullptr) return FALSE;
  mark->bookmark = record->record.id;
  mark->bookmarkSet = true;
  return TRUE;
}

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE session, HANDLE signalEvent, LPCWSTR path, LPCWSTR query,
                               EVT_HANDLE bookmark, PVOID context, EVT_SUBSCRIBE_CALLBACK callback, DWORD flags) {
  {
    std::lock_guard hold(g_lock);
    if (!eventlog::AcceptSubscription(path, query, bookmark, flags, eventlog::g_liveSubscriptions)) return nullptr;
  }
  const DWORD origin = flags & EvtSubscribeOriginMask;
  // Only the callback form is served; a signalled event handle without one is not.
  if (session != nullptr || signalEvent != nullptr || callback == nullptr || origin == 0) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (!eventlog::ChannelAndQuery(path, query)) return nullptr;
  auto object = std::make_unique<Object>();
  object->kind = Kind::kSubscription;
  object->subscription = std::make_unique<eventlog::Subscription>();
  eventlog::Subscription& s = *object->subscription;
  s.callback = callback;
  s.context = context;
  s.futureOnly = origin == EvtSubscribeToFutureEvents;
  s.stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  s.written.reset(eventlog::OpenWrittenEvent());
  if (!s.stop) return nullptr;
  std::lock_guard hold(g_lock);
  std::int64_t startedAfter = -1;
  if (origin == EvtSubscribeStartAfterBookmark && bookmark != nullptr) {
    Object* mark = eventlog::Find(bookmark, Kind::kBookmark);
    if (mark == nullptr) return nullptr;
    s.after = mark->bookmarkSet ? mark->bookmark : 0;
    if (mark->bookmarkSet) startedAfter = static_cast<std::int64_t>(mark->bookmark);
  }
  s.worker = std::thread(eventlog::Deliver, &s);
  ++eventlog::g_liveSubscriptions;
  ++eventlog::g_counters.subscriptions;
  eventlog::g_counters.bookmarkRecord = startedAfter;
  return eventlog::Hand(std::move(object));
}

WINBOOL WINAPI EvtClose(EVT_HANDLE handle) {
  std::unique_lock hold(g_lock);
  auto* object = static_cast<Object*>(handle);
  if (g_objects.count(object) == 0) {
    ++eventlog::g_counters.foreignHandles;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  g_objects.erase(object);
  if (object->kind == Kind::kSubscription) --eventlog::g_liveSubscriptions;
  hold.unlock();
  if (object->kind == Kind::kSubscription) {
    eventlog::Subscription& s = *object->subscription;
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
