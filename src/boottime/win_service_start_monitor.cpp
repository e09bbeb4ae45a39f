#include "boottime/win_service_start_monitor.h"

#include "common/guard.h"
#include "common/log.h"
#include "common/module_library.h"

namespace boottime {
namespace {

constexpr wchar_t kAdvapi[] = L"Advapi32.dll";

}  // namespace

WinServiceStartMonitor::WinServiceStartMonitor(std::wstring service, IWinServiceStartMonitorObserver* observer)
    : service_(std::move(service)), observer_(observer) {}

WinServiceStartMonitor::~WinServiceStartMonitor() { Stop(); }

bool WinServiceStartMonitor::Start() {
  KY_TRACE(L"boottime::WinServiceStartMonitor::Start");
  manager_.reset(::OpenSCManagerW(nullptr, nullptr, kManagerAccess));
  if (!manager_) return false;
  serviceHandle_.reset(::OpenServiceW(manager_.get(), service_.c_str(), kServiceAccess));
  if (!serviceHandle_) {
    manager_.reset();
    return false;
  }
  threadService_ = serviceHandle_.get();
  notify_ = std::make_unique<SERVICE_NOTIFYW>();
  ::InterlockedExchange(&pending_, 0);
  ::InterlockedExchange(&stop_, 0);
  thread_.reset(::CreateThread(nullptr, 0, &ThreadProc, this, 0, nullptr));
  if (!thread_) {
    serviceHandle_.reset();
    manager_.reset();
    return false;
  }
  return true;
}

void WinServiceStartMonitor::Stop() {
  KY_TRACE(L"boottime::WinServiceStartMonitor::Stop");
  // The thread ends before the handles are closed: it may still be registering with them.
  if (thread_) {
    if (::QueueUserAPC(&OnStopRequest, thread_.get(), reinterpret_cast<ULONG_PTR>(this))) {
      ::WaitForSingleObject(thread_.get(), INFINITE);
    } else {
      KY_LOG(logging::kLevelError, L"QueueUserAPC failed 0x%x", ::GetLastError());
    }
    thread_.reset();
  }
  serviceHandle_.reset();
  manager_.reset();
  // A registration still unanswered may yet be written into its record by the system's
  // own thread (Wine does so even after the handle is closed), so that record is let go.
  if (::InterlockedCompareExchange(&pending_, 0, 0) != 0) (void)notify_.release();
  notify_.reset();
}

DWORD WINAPI WinServiceStartMonitor::ThreadProc(void* self) {
  DWORD result = ERROR_GEN_FAILURE;
  ky::GuardedVoid(L"boottime::WinServiceStartMonitor::ThreadProc",
                  [&] { result = static_cast<WinServiceStartMonitor*>(self)->Run(); });
  return result;
}

VOID CALLBACK WinServiceStartMonitor::OnStopRequest(ULONG_PTR self) {
  auto* monitor = reinterpret_cast<WinServiceStartMonitor*>(self);
  ::InterlockedCompareExchange(&monitor->stop_, 1, 0);
}

VOID CALLBACK WinServiceStartMonitor::OnNotify(void* parameter) {
  ky::GuardedVoid(L"boottime::WinServiceStartMonitor::OnNotify", [&] {
    auto* notify = static_cast<SERVICE_NOTIFYW*>(parameter);
    if (notify == nullptr || notify->pContext == nullptr) return;
    ::InterlockedExchange(&static_cast<WinServiceStartMonitor*>(notify->pContext)->pending_, 0);
    if (notify->ServiceStatus.dwCurrentState != SERVICE_RUNNING) return;
    auto* monitor = static_cast<WinServiceStartMonitor*>(notify->pContext);
    monitor->running_ = true;
    if (monitor->observer_ != nullptr) monitor->observer_->OnServiceStarted(monitor->service_.c_str());
  });
}

DWORD WinServiceStartMonitor::Run() {
  KY_TRACE(L"boottime::WinServiceStartMonitor::Run");
  ky::ModuleLibrary advapi;
  if (const std::uint32_t loaded = advapi.Load(kAdvapi); loaded != 0) return loaded;
  decltype(&::NotifyServiceStatusChangeW) notifyChange = nullptr;
  if (const std::uint32_t bound = advapi.Bind({KY_BIND_DECLARED(NotifyServiceStatusChangeW, notifyChange)});
      bound != 0) {
    return bound;
  }
  SERVICE_NOTIFYW& notify = *notify_;
  notify.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
  notify.pfnNotifyCallback = &OnNotify;
  notify.pContext = this;
  running_ = false;
  ::InterlockedExchange(&pending_, 1);
  DWORD result = notifyChange(threadService_, SERVICE_NOTIFY_RUNNING, &notify);
  if (result != 0) {
    ::InterlockedExchange(&pending_, 0);
    return result;
  }
  for (;;) {
    // A stop request queued before the thread ran has already run its procedure call.
    if (::InterlockedCompareExchange(&stop_, 0, 1) == 1) return 0;
    if (::SleepEx(INFINITE, TRUE) != WAIT_IO_COMPLETION) continue;
    if (::InterlockedCompareExchange(&stop_, 0, 1) == 1) return 0;
    // Registering again for a service that already runs is answered at once, every time,
    // which would turn this wait into a busy loop.
    if (running_) continue;
    ::InterlockedExchange(&pending_, 1);
    result = notifyChange(threadService_, SERVICE_NOTIFY_RUNNING, &notify);
    if (result != 0) {
      ::InterlockedExchange(&pending_, 0);
      return result;
    }
  }
}

}  // namespace boottime
