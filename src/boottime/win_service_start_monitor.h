// Watches one service and tells an observer when it enters the running state. The
// notifications arrive as asynchronous procedure calls on a thread of the monitor's own that
// sleeps alertably; Stop ends that thread with one more queued call and a flag.
#pragma once

#include <windows.h>
#include <winsvc.h>

#include <memory>
#include <string>

#include "common/unique_handle.h"

namespace boottime {

class IWinServiceStartMonitorObserver {
 public:
  // Called on the monitor's thread each time the service is reported running.
  virtual void OnServiceStarted(const wchar_t* service) = 0;

 protected:
  ~IWinServiceStartMonitorObserver() = default;
};

class WinServiceStartMonitor {
 public:
  static constexpr DWORD kManagerAccess = SC_MANAGER_ENUMERATE_SERVICE;  // 4
  static constexpr DWORD kServiceAccess = SERVICE_QUERY_STATUS;          // 4

  WinServiceStartMonitor(std::wstring service, IWinServiceStartMonitorObserver* observer);
  // Stops the thread if Stop was not called.
  ~WinServiceStartMonitor();
  WinServiceStartMonitor(const WinServiceStartMonitor&) = delete;
  WinServiceStartMonitor& operator=(const WinServiceStartMonitor&) = delete;

  // Opens the manager and the service and starts the thread; false (last error set) when
  // either cannot be opened or the thread cannot start.
  [[nodiscard]] bool Start();
  // Ends the thread and waits for it, then closes the handles; no observer call follows.
  void Stop();

 private:
  static DWORD WINAPI ThreadProc(void* self);
  static VOID CALLBACK OnNotify(void* parameter);
  static VOID CALLBACK OnStopRequest(ULONG_PTR self);
  DWORD Run();

  std::wstring service_;
  IWinServiceStartMonitorObserver* observer_;
  ky::unique_schandle manager_;
  ky::unique_schandle serviceHandle_;
  SC_HANDLE threadService_ = nullptr;  // the thread's copy, fixed before it starts
  ky::unique_handle thread_;
  volatile LONG stop_ = 0;
  bool running_ = false;  // set by the notification callback, on the thread itself
  // The record the system fills when it notifies; see Stop for why it is held apart.
  std::unique_ptr<SERVICE_NOTIFYW> notify_;
  volatile LONG pending_ = 0;  // a registration not yet answered by a callback
};

}  // namespace boottime
