// The system's boot-performance event (event 100 of the Diagnostics-Performance channel),
// read through the event-log functions bound at run time from "Wevtapi.dll". Every handle
// is owned and closed through the bound EvtClose; no function is ever called on a handle
// the library did not hand out.
#pragma once

#include <windows.h>
#include <winevt.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/module_library.h"
#include "common/unique_handle.h"

namespace boottime {

class IWinBootEventsObserver {
 public:
  static constexpr std::uint32_t kBootTimeRead = 1;
  static constexpr std::uint32_t kCreationTimeRead = 2;
  // Called on the event log's own thread for each delivered event; `bootTime` is 0 unless
  // kBootTimeRead is in `flags`.
  virtual void OnBootEvent(std::uint32_t bootTime, FILETIME created, std::uint32_t flags) = 0;

 protected:
  ~IWinBootEventsObserver() = default;
};

// The eight bound functions, in the order they are bound.
struct WevtFunctions {
  decltype(&::EvtCreateRenderContext) createRenderContext = nullptr;
  decltype(&::EvtRender) render = nullptr;
  decltype(&::EvtClose) close = nullptr;
  decltype(&::EvtQuery) query = nullptr;
  decltype(&::EvtNext) next = nullptr;
  decltype(&::EvtSubscribe) subscribe = nullptr;
  decltype(&::EvtCreateBookmark) createBookmark = nullptr;
  decltype(&::EvtUpdateBookmark) updateBookmark = nullptr;
};

using EvtOwner = ky::unique_bound<EVT_HANDLE, decltype(&::EvtClose)>;

class CWinBootEvents {
 public:
  class Subscription;

  static constexpr wchar_t kLibrary[] = L"Wevtapi.dll";
  static constexpr wchar_t kChannel[] = L"Microsoft-Windows-Diagnostics-Performance/Operational";
  static constexpr wchar_t kQuery[] = L"Event/System[EventID=100]";
  static constexpr wchar_t kTimeCreatedPath[] = L"Event/System/TimeCreated/@SystemTime";
  static constexpr wchar_t kBootTimePath[] = L"Event/EventData/Data[@Name=\"BootTime\"]";
  static constexpr DWORD kQueryFlags = EvtQueryChannelPath | EvtQueryReverseDirection;  // 0x201

  // `library` is the name or path loaded by Init.
  explicit CWinBootEvents(std::wstring library = kLibrary);
  ~CWinBootEvents();
  CWinBootEvents(const CWinBootEvents&) = delete;
  CWinBootEvents& operator=(const CWinBootEvents&) = delete;

  // Loads the library and binds all eight functions; false when it cannot be loaded or any
  // function is missing (the first missing name is then in MissingFunction).
  [[nodiscard]] bool Init();
  const char* MissingFunction() const { return missing_; }

  // The creation time of the newest boot event; false (last error as the failing call left
  // it) when there is none or it cannot be read, `created` then untouched.
  [[nodiscard]] bool GetLastBootEventTime(FILETIME& created);

  // Renders `paths` of `event` into `buffer`; the values, or null when rendering failed or
  // returned fewer values than asked.
  const EVT_VARIANT* Render(EVT_HANDLE event, const wchar_t* const* paths, DWORD count, std::vector<BYTE>& buffer);

  const WevtFunctions& Functions() const { return fns_; }
  EvtOwner Own(EVT_HANDLE handle) const { return EvtOwner(handle, fns_.close); }

  // The current subscription, replaced (and the old one closed) by each Subscribe.
  std::unique_ptr<Subscription> subscription;

 private:
  std::wstring libraryName_;
  ky::ModuleLibrary library_;
  WevtFunctions fns_{};
  const char* missing_ = nullptr;
};

class CWinBootEvents::Subscription {
 public:
  Subscription(CWinBootEvents& events, IWinBootEventsObserver* observer);
  // Closes the subscription first, so no delivery follows, then the bookmark and the query.
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Subscribes to boot events newer than the newest one whose creation time's upper half is
  // not above that of `lastBootEventTime`; false (logged) when the query or the
  // subscription fails.
  [[nodiscard]] bool Init(FILETIME lastBootEventTime);
  bool HasBookmark() const { return static_cast<bool>(bookmark_); }

 private:
  void FindStart(DWORD lastHigh);
  static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event);
  void Deliver(EVT_HANDLE event);

  CWinBootEvents& events_;
  IWinBootEventsObserver* observer_;
  EvtOwner query_;
  EvtOwner bookmark_;
  EvtOwner subscription_;
};

}  // namespace boottime
