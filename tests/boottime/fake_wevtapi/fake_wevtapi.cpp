// Test double of wevtapi.dll: the eight functions the module binds, over an in-memory
// channel "Microsoft-Windows-Diagnostics-Performance/Operational" of event 100 records whose
// data items have the names and types Windows gives them. Deliveries of a subscription run
// on a thread of its own, as the event log's do.
#include "fake_wevtapi.h"

#include <winevt.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr wchar_t kChannel[] = L"Microsoft-Windows-Diagnostics-Performance/Operational";
constexpr wchar_t kQuery[] = L"Event/System[EventID=100]";
constexpr wchar_t kTimeCreated[] = L"Event/System/TimeCreated/@SystemTime";
constexpr wchar_t kDataPrefix[] = L"Event/EventData/Data[@Name=\"";

// The data items of a real event 100 with their types and values (BootTime aside).
struct DataItem {
  const wchar_t* name;
  EVT_VARIANT_TYPE type;
  std::uint64_t value;
};
constexpr DataItem kItems[] = {
    {L"BootTsVersion", EvtVarTypeUInt32, 2},
    {L"BootStartTime", EvtVarTypeFileTime, 132467576329883590ull},
    {L"BootEndTime", EvtVarTypeFileTime, 132467577488421729ull},
    {L"SystemBootInstance", EvtVarTypeUInt32, 3},
    {L"UserBootInstance", EvtVarTypeUInt32, 3},
    {L"MainPathBootTime", EvtVarTypeUInt32, 33326},
    {L"BootPostBootTime", EvtVarTypeUInt32, 68700},
    {L"BootIsRebootAfterInstall", EvtVarTypeBoolean, 0},
    {L"BootIsDegradation", EvtVarTypeBoolean, 1},
    {L"BootDegradationDelta", EvtVarTypeUInt32, 53279},
    {L"UserLogonWaitDuration", EvtVarTypeUInt32, 177},
};
constexpr wchar_t kBootTimeText[] = L"102026";

struct Record {
  std::int64_t id;
  std::uint64_t created;
  std::uint32_t bootTime;
  std::uint32_t kind;
};

enum class Kind { kQuery, kEvent, kContext, kBookmark, kSubscription };

struct Subscription;

struct Object {
  Kind kind;
  std::vector<Record> results;  // query: newest first
  std::size_t cursor = 0;
  Record record{};               // event
  std::vector<std::wstring> paths;  // context
  std::int64_t bookmark = -1;    // bookmark
  std::unique_ptr<Subscription> subscription;
};

struct Subscription {
  EVT_SUBSCRIBE_CALLBACK callback;
  void* context;
  std::deque<Record> pending;
  bool stopping = false;
  std::thread worker;
};

std::mutex g_lock;
std::condition_variable g_changed;
std::vector<Record> g_channel;
std::set<Object*> g_objects;
Object* g_subscription = nullptr;
fakewevt::Stats g_stats{0, 0, -1, 0, 0};
bool g_queryFails = false;

// The object behind a handle this library handed out, or null (counted) for any other.
Object* Find(EVT_HANDLE handle, Kind kind) {
  auto* object = static_cast<Object*>(handle);
  if (g_objects.count(object) == 0 || object->kind != kind) {
    ++g_stats.foreignHandles;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return object;
}

EVT_HANDLE Hand(std::unique_ptr<Object> object) {
  Object* raw = object.release();
  g_objects.insert(raw);
  ++g_stats.openHandles;
  return raw;
}

void Deliver(Object* owner) {
  Subscription& s = *owner->subscription;
  std::unique_lock hold(g_lock);
  for (;;) {
    g_changed.wait(hold, [&] { return s.stopping || !s.pending.empty(); });
    if (s.stopping) return;
    auto event = std::make_unique<Object>();
    event->kind = Kind::kEvent;
    event->record = s.pending.front();
    s.pending.pop_front();
    EVT_HANDLE handle = Hand(std::move(event));
    hold.unlock();
    s.callback(EvtSubscribeActionDeliver, s.context, handle);
    hold.lock();
    g_objects.erase(static_cast<Object*>(handle));
    delete static_cast<Object*>(handle);
    --g_stats.openHandles;
    ++g_stats.delivered;
    g_changed.notify_all();
  }
}

// One value of `record` for `path`; a string's text is added to `strings`.
void RenderValue(const Record& record, const std::wstring& path, EVT_VARIANT& out, std::vector<std::wstring>& strings) {
  out = EVT_VARIANT{};
  out.Type = EvtVarTypeNull;
  if (path == kTimeCreated) {
    out.Type = EvtVarTypeFileTime;
    out.FileTimeVal = record.created;
    return;
  }
  const std::wstring prefix = kDataPrefix;
  if (path.compare(0, prefix.size(), prefix) != 0 || path.size() < prefix.size() + 2) return;
  const std::wstring name = path.substr(prefix.size(), path.size() - prefix.size() - 2);
  if (name == L"BootTime") {
    if (record.kind == fakewevt::kUInt32) {
      out.Type = EvtVarTypeUInt32;
      out.UInt32Val = record.bootTime;
    } else if (record.kind == fakewevt::kAsString) {
      out.Type = EvtVarTypeString;
      strings.push_back(kBootTimeText);
    }
    return;
  }
  for (const DataItem& item : kItems) {
    if (name != item.name) continue;
    out.Type = item.type;
    if (item.type == EvtVarTypeFileTime) out.FileTimeVal = item.value;
    if (item.type == EvtVarTypeUInt32) out.UInt32Val = static_cast<UINT32>(item.value);
    if (item.type == EvtVarTypeBoolean) out.BooleanVal = static_cast<BOOL>(item.value);
  }
}

}  // namespace

extern "C" {

EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE session, LPCWSTR path, LPCWSTR query, DWORD flags) {
  std::lock_guard hold(g_lock);
  if (g_queryFails) return nullptr;
  if (session != nullptr || path == nullptr || query == nullptr || std::wcscmp(path, kChannel) != 0 ||
      std::wcscmp(query, kQuery) != 0 || flags != (EvtQueryChannelPath | EvtQueryReverseDirection)) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kQuery;
  object->results.assign(g_channel.rbegin(), g_channel.rend());
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtNext(EVT_HANDLE resultSet, DWORD eventArraySize, EVT_HANDLE* eventArray, DWORD, DWORD,
                       PDWORD returned) {
  std::lock_guard hold(g_lock);
  Object* query = Find(resultSet, Kind::kQuery);
  if (query == nullptr || eventArray == nullptr || returned == nullptr) return FALSE;
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
  std::lock_guard hold(g_lock);
  if (flags != EvtRenderContextValues || valuePaths == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kContext;
  for (DWORD i = 0; i < valuePathsCount; ++i) object->paths.emplace_back(valuePaths[i]);
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
  std::vector<std::wstring> strings;
  std::size_t needed = rendered.size() * sizeof(EVT_VARIANT);
  for (std::size_t i = 0; i < rendered.size(); ++i) {
    const std::size_t before = strings.size();
    RenderValue(event->record, values->paths[i], rendered[i], strings);
    if (strings.size() != before) needed += (strings.back().size() + 1) * sizeof(wchar_t);
  }
  *bufferUsed = static_cast<DWORD>(needed);
  *propertyCount = static_cast<DWORD>(rendered.size());
  if (buffer == nullptr || bufferSize < needed) {
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  auto* out = static_cast<BYTE*>(buffer);
  auto* text = reinterpret_cast<wchar_t*>(out + rendered.size() * sizeof(EVT_VARIANT));
  std::size_t next = 0;
  for (EVT_VARIANT& value : rendered) {
    if (value.Type == EvtVarTypeString) {
      const std::wstring& s = strings[next++];
      std::memcpy(text, s.c_str(), (s.size() + 1) * sizeof(wchar_t));
      value.StringVal = text;
      text += s.size() + 1;
    }
  }
  std::memcpy(out, rendered.data(), rendered.size() * sizeof(EVT_VARIANT));
  return TRUE;
}

EVT_HANDLE WINAPI EvtCreateBookmark(LPCWSTR bookmarkXml) {
  std::lock_guard hold(g_lock);
  if (bookmarkXml != nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kBookmark;
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtUpdateBookmark(EVT_HANDLE bookmark, EVT_HANDLE event) {
  std::lock_guard hold(g_lock);
  Object* mark = Find(bookmark, Kind::kBookmark);
  Object* record = Find(event, Kind::kEvent);
  if (mark == nullptr || record == nullptr) return FALSE;
  mark->bookmark = record->record.id;
  return TRUE;
}

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE session, HANDLE signalEvent, LPCWSTR path, LPCWSTR query,
                               EVT_HANDLE bookmark, PVOID context, EVT_SUBSCRIBE_CALLBACK callback, DWORD flags) {
  std::lock_guard hold(g_lock);
  // Starting after a bookmark needs one, as on Windows.
  if (session != nullptr || signalEvent != nullptr || path == nullptr || std::wcscmp(path, kChannel) != 0 ||
      query == nullptr || std::wcscmp(query, kQuery) != 0 || flags != EvtSubscribeStartAfterBookmark ||
      callback == nullptr || bookmark == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  Object* mark = Find(bookmark, Kind::kBookmark);
  if (mark == nullptr || g_subscription != nullptr) {
    ::SetLastError(g_subscription != nullptr ? ERROR_BUSY : ERROR_INVALID_HANDLE);
    return nullptr;
  }
  auto object = std::make_unique<Object>();
  object->kind = Kind::kSubscription;
  object->subscription = std::make_unique<Subscription>();
  Subscription& s = *object->subscription;
  s.callback = callback;
  s.context = context;
  for (const Record& record : g_channel) {
    if (record.id > mark->bookmark) s.pending.push_back(record);
  }
  g_stats.bookmarkRecord = mark->bookmark;
  ++g_stats.subscriptions;
  Object* raw = object.get();
  s.worker = std::thread(Deliver, raw);
  g_subscription = raw;
  return Hand(std::move(object));
}

WINBOOL WINAPI EvtClose(EVT_HANDLE handle) {
  std::unique_lock hold(g_lock);
  auto* object = static_cast<Object*>(handle);
  if (g_objects.count(object) == 0) {
    ++g_stats.foreignHandles;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  g_objects.erase(object);
  --g_stats.openHandles;
  if (object->kind == Kind::kSubscription) {
    // Returns only after a running delivery has, as the event log does.
    object->subscription->stopping = true;
    g_changed.notify_all();
    if (g_subscription == object) g_subscription = nullptr;
    hold.unlock();
    object->subscription->worker.join();
  }
  delete object;
  return TRUE;
}

void __cdecl FakeWevtReset() {
  std::lock_guard hold(g_lock);
  g_channel.clear();
  g_queryFails = false;
  g_stats = fakewevt::Stats{0, 0, -1, g_stats.openHandles, 0};
}

void __cdecl FakeWevtAddEvent(std::uint64_t createdFileTime, std::uint32_t bootTime, std::uint32_t kind) {
  std::lock_guard hold(g_lock);
  const Record record{static_cast<std::int64_t>(g_channel.size()) + 1, createdFileTime, bootTime, kind};
  g_channel.push_back(record);
  if (g_subscription != nullptr) {
    g_subscription->subscription->pending.push_back(record);
    g_changed.notify_all();
  }
}

void __cdecl FakeWevtGetStats(fakewevt::Stats* stats) {
  std::lock_guard hold(g_lock);
  if (stats != nullptr) *stats = g_stats;
}

void __cdecl FakeWevtSetQueryFails(bool fails) {
  std::lock_guard hold(g_lock);
  g_queryFails = fails;
}

bool __cdecl FakeWevtWaitDelivered(std::uint32_t count, std::uint32_t ms) {
  std::unique_lock hold(g_lock);
  return g_changed.wait_for(hold, std::chrono::milliseconds(ms), [&] { return g_stats.delivered >= count; });
}

}  // extern "C"
