#include "boottime/event_log_boot_events.h"

#include "common/guard.h"
#include "common/log.h"

namespace boottime {
namespace {

constexpr DWORD kFirstBuffer = 256;

}  // namespace

CWinBootEvents::CWinBootEvents(std::wstring library) : libraryName_(std::move(library)) {}

CWinBootEvents::~CWinBootEvents() { subscription.reset(); }

bool CWinBootEvents::Init() {
  KY_TRACE(L"boottime::CWinBootEvents::Init");
  if (library_.Load(libraryName_) != 0) return false;
  WevtFunctions bound;
  const std::uint32_t result = library_.Bind({KY_BIND_DECLARED(EvtCreateRenderContext, bound.createRenderContext),
                                              KY_BIND_DECLARED(EvtRender, bound.render),
                                              KY_BIND_DECLARED(EvtClose, bound.close),
                                              KY_BIND_DECLARED(EvtQuery, bound.query),
                                              KY_BIND_DECLARED(EvtNext, bound.next),
                                              KY_BIND_DECLARED(EvtSubscribe, bound.subscribe),
                                              KY_BIND_DECLARED(EvtCreateBookmark, bound.createBookmark),
                                              KY_BIND_DECLARED(EvtUpdateBookmark, bound.updateBookmark)},
                                             &missing_);
  if (result != 0) {
    KY_LOG(logging::kLevelError, L"%S missing 0x%x", missing_ != nullptr ? missing_ : "", result);
    library_.Free();
    return false;
  }
  fns_ = bound;
  return true;
}

const EVT_VARIANT* CWinBootEvents::Render(EVT_HANDLE event, const wchar_t* const* paths, DWORD count,
                                          std::vector<BYTE>& buffer) {
  if (event == nullptr) return nullptr;
  EvtOwner context = Own(fns_.createRenderContext(count, const_cast<LPCWSTR*>(paths), EvtRenderContextValues));
  if (!context) return nullptr;
  buffer.assign(kFirstBuffer, 0);
  DWORD used = 0;
  DWORD values = 0;
  if (!fns_.render(context.get(), event, EvtRenderEventValues, static_cast<DWORD>(buffer.size()), buffer.data(), &used,
                   &values)) {
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || used <= buffer.size()) return nullptr;
    buffer.assign(used, 0);
    if (!fns_.render(context.get(), event, EvtRenderEventValues, static_cast<DWORD>(buffer.size()), buffer.data(),
                     &used, &values)) {
      return nullptr;
    }
  }
  if (values < count || used < count * sizeof(EVT_VARIANT)) return nullptr;
  return reinterpret_cast<const EVT_VARIANT*>(buffer.data());
}

bool CWinBootEvents::GetLastBootEventTime(FILETIME& created) {
  KY_TRACE(L"boottime::CWinBootEvents::GetLastBootEventTime");
  ::SetLastError(0);
  EvtOwner query = Own(fns_.query(nullptr, kChannel, kQuery, kQueryFlags));
  if (!query) return false;
  EVT_HANDLE raw = nullptr;
  DWORD returned = 0;
  if (!fns_.next(query.get(), 1, &raw, INFINITE, 0, &returned) || returned == 0) return false;
  EvtOwner event = Own(raw);
  std::vector<BYTE> buffer;
  const wchar_t* const paths[] = {kTimeCreatedPath};
  const EVT_VARIANT* value = Render(event.get(), paths, 1, buffer);
  if (value == nullptr || value->Type != EvtVarTypeFileTime) return false;
  ULARGE_INTEGER time{};
  time.QuadPart = value->FileTimeVal;
  created.dwLowDateTime = time.LowPart;
  created.dwHighDateTime = time.HighPart;
  return true;
}

CWinBootEvents::Subscription::Subscription(CWinBootEvents& events, IWinBootEventsObserver* observer)
    : events_(events), observer_(observer) {}

CWinBootEvents::Subscription::~Subscription() {
  subscription_.reset();
  bookmark_.reset();
  query_.reset();
}

bool CWinBootEvents::Subscription::Init(FILETIME lastBootEventTime) {
  KY_TRACE(L"boottime::CWinBootEvents::Subscription::Init");
  const WevtFunctions& fns = events_.Functions();
  ::SetLastError(0);
  query_ = events_.Own(fns.query(nullptr, kChannel, kQuery, kQueryFlags));
  if (!query_) {
    const DWORD error = ::GetLastError();
    KY_LOG(logging::kLevelError, L"OpenEventSet failed 0x%x", error);
    ::SetLastError(error);
    return false;
  }
  FindStart(lastBootEventTime.dwHighDateTime);
  ::SetLastError(0);
  subscription_ = events_.Own(fns.subscribe(nullptr, nullptr, kChannel, kQuery, bookmark_.get(), this, &OnEvent,
                                            EvtSubscribeStartAfterBookmark));
  if (!subscription_) {
    const DWORD error = ::GetLastError();
    KY_LOG(logging::kLevelError, L"EvtSubscribe failed 0x%x", error);
    ::SetLastError(error);
    return false;
  }
  return true;
}

void CWinBootEvents::Subscription::FindStart(DWORD lastHigh) {
  const WevtFunctions& fns = events_.Functions();
  const wchar_t* const paths[] = {kTimeCreatedPath};
  std::vector<BYTE> buffer;
  for (;;) {
    EVT_HANDLE raw = nullptr;
    DWORD returned = 0;
    if (!fns.next(query_.get(), 1, &raw, INFINITE, 0, &returned) || returned == 0) return;
    EvtOwner event = events_.Own(raw);
    const EVT_VARIANT* value = events_.Render(event.get(), paths, 1, buffer);
    if (value == nullptr || value->Type != EvtVarTypeFileTime) return;
    // Only the upper halves are compared, which groups creation times into steps of about
    // 429 s; kept as the product has always done it.
    if (static_cast<DWORD>(value->FileTimeVal >> 32) > lastHigh) continue;
    EvtOwner bookmark = events_.Own(fns.createBookmark(nullptr));
    if (bookmark && fns.updateBookmark(bookmark.get(), event.get())) bookmark_ = std::move(bookmark);
    return;
  }
}

DWORD WINAPI CWinBootEvents::Subscription::OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context,
                                                   EVT_HANDLE event) {
  ky::GuardedVoid(L"boottime::CWinBootEvents::Subscription::OnEvent", [&] {
    if (action != EvtSubscribeActionDeliver || context == nullptr) return;
    static_cast<Subscription*>(context)->Deliver(event);
  });
  return 0;
}

void CWinBootEvents::Subscription::Deliver(EVT_HANDLE event) {
  KY_TRACE(L"boottime::CWinBootEvents::Subscription::Deliver");
  const wchar_t* const paths[] = {kTimeCreatedPath, kBootTimePath};
  std::vector<BYTE> buffer;
  const EVT_VARIANT* values = events_.Render(event, paths, 2, buffer);
  std::uint32_t flags = 0;
  FILETIME created{};
  std::uint32_t bootTime = 0;
  if (values != nullptr) {
    if (values[0].Type == EvtVarTypeFileTime) {
      created.dwLowDateTime = static_cast<DWORD>(values[0].FileTimeVal);
      created.dwHighDateTime = static_cast<DWORD>(values[0].FileTimeVal >> 32);
      flags |= IWinBootEventsObserver::kCreationTimeRead;
    }
    if (values[1].Type == EvtVarTypeUInt32) {
      bootTime = values[1].UInt32Val;
      flags |= IWinBootEventsObserver::kBootTimeRead;
    }
  }
  KY_LOG(logging::kLevelInfo, L"boot event flags=%d bootTime=%d", flags, bootTime);
  if (observer_ != nullptr) observer_->OnBootEvent(bootTime, created, flags);
}

}  // namespace boottime
