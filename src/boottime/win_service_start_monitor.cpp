#include "boottime/win_service_start_monitor.h"

#include "common/guard.h"
#include "common/log.h"

namespace boottime {
namespace {

constexpr wchar_t kAdvapi[] = L"Advapi32.dll";
constexpr char kNotifyFunction[] = "NotifyServiceStatusChangeW";

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
  serviceHandle_.reset();
  manager_.reset();
  if (!thread_) return;
  if (::QueueUserAPC(&OnStopRequest, thread_.get(), reinterpret_cast<ULONG_PTR>(this))) {
    ::WaitForSingleObject(thread_.get(), INFINITE);
  } else {
    KY_LOG(logging::kLevelError, L"QueueUserAPC failed 0x%x", ::GetLastError());
  }
  thread_.reset();
}

DWORD WinServiceStartMonitor::ThreadResult() const {
  DWORD code = STILL_ACTIVE;
  if (thread_) ::GetExitCodeThread(thread_.get(), &code);
  return code;
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
    if (notify->ServiceStatus.dwCurrentState != SERVICE_RUNNING) return;
    auto* monitor = static_cast<WinServiceStartMonitor*>(notify->pContext);
    monitor->running_ = true;
    if (monitor->observer_ != nullptr) monitor->observer_->OnServiceStarted(monitor->service_.c_str());
  });
}

DWORD WinServiceStartMonitor::Run() {
  KY_TRACE(L"boottime::WinServiceStartMonitor::Run");
  HMODULE advapi = ::GetModuleHandleW(kAdvapi);
  if (advapi == nullptr) return ::GetLastError();
  auto notifyChange = reinterpret_cast<decltype(&::NotifyServiceStatusChangeW)>(
      reinterpret_cast<void*>(::GetProcAddress(advapi, kNotifyFunction)));
  if (notifyChange == nullptr) return ::GetLastError();
  notify_ = SERVICE_NOTIFYW{};
  notify_.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
  notify_.pfnNotifyCallback = &OnNotify;
  notify_.pContext = this;
  running_ = false;
  DWORD result = notifyChange(threadService_, SERVICE_NOTIFY_RUNNING, &notify_);
  if (result != 0) return result;
  for (;;) {
    if (::SleepEx(INFINITE, TRUE) != WAIT_IO_COMPLETION) continue;
    if (::InterlockedCompareExchange(&stop_, 0, 1) == 1) return 0;
    // Registering again for a service that already runs is answered at once, every time,
    // which would turn this wait into a busy loop.
    if (running_) continue;
    result = notifyChange(threadService_, SERVICE_NOTIFY_RUNNING, &notify_);
    if (result != 0) return result;
  }
}

}  // namespace boottime
