// The system's own measurement of the current boot: waits for the "RpcSs" service, then
// subscribes to boot events newer than the newest one already logged, and keeps the first
// one of this boot. The done event is signalled once a result is known (last, after the
// result and the boot time are written).
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "boottime/boot_time_monitor.h"
#include "boottime/clock.h"
#include "boottime/event_log_boot_events.h"
#include "boottime/win_service_start_monitor.h"
#include "common/critical_section.h"
#include "common/unique_handle.h"

namespace boottime {

class BootTimeMonitor::WinBootEvent final : public IWinServiceStartMonitorObserver, public IWinBootEventsObserver {
 public:
  static constexpr wchar_t kService[] = L"RpcSs";
  static constexpr std::uint32_t kResultFound = 0;        // an event of this boot created after Start
  static constexpr std::uint32_t kResultFailed = 1;       // binding, service monitor, subscription or event failed
  static constexpr std::uint32_t kResultWaiting = 2;      // set by Start
  static constexpr std::uint32_t kResultBeforeStart = 3;  // this boot's event, created before Start

  // `library` is what CWinBootEvents loads ("Wevtapi.dll").
  explicit WinBootEvent(IClock& clock = SystemClock::Instance(), std::wstring library = CWinBootEvents::kLibrary);
  ~WinBootEvent();
  WinBootEvent(const WinBootEvent&) = delete;
  WinBootEvent& operator=(const WinBootEvent&) = delete;

  // Binds the event-log functions and starts watching "RpcSs"; false at once when already
  // started, false with result 1 and the done event signalled when either fails.
  bool Start();
  // Stops the service monitor, cancels the subscription, frees the functions and resets
  // the done event; a new Start begins afresh.
  void Stop();
  // Subscribes (again) from the newest boot event; false (logged) when it cannot.
  bool Subscribe();

  void OnServiceStarted(const wchar_t* service) override;
  void OnBootEvent(std::uint32_t bootTime, FILETIME created, std::uint32_t flags) override;

  HANDLE DoneEvent() const { return done_.get(); }
  bool Done() const { return ::WaitForSingleObject(done_.get(), 0) == WAIT_OBJECT_0; }
  std::uint32_t ResultState() const { return result_.load(); }
  std::uint32_t BootTime() const { return bootTime_.load(); }
  // Resets the done event and subscribes again; when that fails the event is set again so
  // that the next check retries.
  void Retry();

 private:
  IClock& clock_;
  std::wstring library_;
  ky::CriticalSection lock_;  // guards the service monitor and the bound functions
  std::unique_ptr<WinServiceStartMonitor> serviceMonitor_;
  std::unique_ptr<CWinBootEvents> bootEvents_;
  ky::unique_handle done_;
  std::atomic<bool> subscribed_{false};
  std::int64_t startTime_ = 0;
  std::atomic<std::uint32_t> result_{kResultWaiting};
  std::atomic<std::uint32_t> bootTime_{0};
};

}  // namespace boottime
