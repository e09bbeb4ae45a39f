#include "boottime/boot_event_watch.h"

#include <mutex>

#include "common/guard.h"
#include "common/log.h"
#include "common/module_library.h"

namespace boottime {

BootTimeMonitor::WinBootEvent::WinBootEvent(IClock& clock, std::wstring library)
    : clock_(clock), library_(std::move(library)), done_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

BootTimeMonitor::WinBootEvent::~WinBootEvent() { Stop(); }

bool BootTimeMonitor::WinBootEvent::Start() {
  KY_TRACE(L"boottime::BootTimeMonitor::WinBootEvent::Start");
  std::lock_guard hold(lock_);
  if (serviceMonitor_) return false;
  ::ResetEvent(done_.get());
  result_ = kResultWaiting;
  startTime_ = static_cast<std::int64_t>(clock_.WallClock());
  subscribed_ = false;
  auto fail = [&](const wchar_t* what) {
    KY_LOG(logging::kLevelError, L"%s", what);
    result_ = kResultFailed;
    ::SetEvent(done_.get());
    return false;
  };
  auto events = std::make_unique<CWinBootEvents>(library_);
  if (!events->Init()) return fail(L"WinBootEvents init failed");
  bootEvents_ = std::move(events);
  auto monitor = std::make_unique<WinServiceStartMonitor>(kService, this);
  if (!monitor->Start()) return fail(L"WinServiceStartMonitor failed to start");
  serviceMonitor_ = std::move(monitor);
  return true;
}

void BootTimeMonitor::WinBootEvent::Stop() {
  KY_TRACE(L"boottime::BootTimeMonitor::WinBootEvent::Stop");
  std::unique_ptr<WinServiceStartMonitor> monitor;
  {
    std::lock_guard hold(lock_);
    monitor = std::move(serviceMonitor_);
  }
  // Joined outside the lock: its thread may be inside Subscribe, which takes it.
  if (monitor) monitor->Stop();
  monitor.reset();
  std::unique_ptr<CWinBootEvents> events;
  {
    std::lock_guard hold(lock_);
    events = std::move(bootEvents_);
  }
  events.reset();
  ::ResetEvent(done_.get());
}

bool BootTimeMonitor::WinBootEvent::Subscribe() {
  KY_TRACE(L"boottime::BootTimeMonitor::WinBootEvent::Subscribe");
  std::lock_guard hold(lock_);
  if (!bootEvents_) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    KY_LOG(logging::kLevelError, L"WinBootEvents Subscribe failed 0x%x", ::GetLastError());
    return false;
  }
  FILETIME last{};
  if (!bootEvents_->GetLastBootEventTime(last)) {
    KY_LOG(logging::kLevelWarning, L"GetLastBootEventTime failed 0x%x", ::GetLastError());
    last = FILETIME{};
  }
  bootEvents_->subscription.reset();
  bootEvents_->subscription = std::make_unique<CWinBootEvents::Subscription>(*bootEvents_, this);
  if (!bootEvents_->subscription->Init(last)) {
    const DWORD error = ::GetLastError();
    bootEvents_->subscription.reset();
    KY_LOG(logging::kLevelError, L"WinBootEvents Subscribe failed 0x%x", error);
    return false;
  }
  return true;
}

void BootTimeMonitor::WinBootEvent::OnServiceStarted(const wchar_t* service) {
  KY_TRACE(L"boottime::BootTimeMonitor::WinBootEvent::OnServiceStarted");
  ky::GuardedVoid(L"boottime::BootTimeMonitor::WinBootEvent::OnServiceStarted", [&] {
    KY_LOG(logging::kLevelInfo, L"%s started", service != nullptr ? service : L"");
    if (subscribed_.exchange(true)) return;
    if (!Subscribe()) {
      result_ = kResultFailed;
      ::SetEvent(done_.get());
    }
  });
}

void BootTimeMonitor::WinBootEvent::OnBootEvent(std::uint32_t bootTime, FILETIME created, std::uint32_t flags) {
  KY_TRACE(L"boottime::BootTimeMonitor::WinBootEvent::OnBootEvent");
  ky::GuardedVoid(L"boottime::BootTimeMonitor::WinBootEvent::OnBootEvent", [&] {
    if (Done()) return;
    if (flags != (kBootTimeRead | kCreationTimeRead)) {
      result_ = kResultFailed;
      ::SetEvent(done_.get());
      return;
    }
    const std::int64_t systemStart = SystemStartTime(clock_);
    const auto eventTime = static_cast<std::int64_t>(ky::FileTimeToU64(created) / 10000);
    // An earlier boot's event: a later one of this boot may still come.
    if (eventTime < systemStart) return;
    if (eventTime >= startTime_) {
      bootTime_ = bootTime;
      result_ = kResultFound;
    } else {
      result_ = kResultBeforeStart;
    }
    KY_LOG(logging::kLevelInfo, L"boot event result=%d bootTime=%d", result_.load(), bootTime);
    ::SetEvent(done_.get());
  });
}

void BootTimeMonitor::WinBootEvent::Retry() {
  KY_TRACE(L"boottime::BootTimeMonitor::WinBootEvent::Retry");
  if (!Done() || result_ != kResultFailed) return;
  ::ResetEvent(done_.get());
  if (!Subscribe()) ::SetEvent(done_.get());
}

}  // namespace boottime
