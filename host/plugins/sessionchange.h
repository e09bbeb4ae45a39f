// The host side of "sessionchange": as a service the control handler relays the system's
// session notifications; in the console the plug-in follows the console session itself.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

namespace host {

// Called once by the service's main before the module runs: the notifications then come
// through RelaySessionChange and the console is not followed.
void SetSessionChangesFromService(bool fromService);

// Hands one SERVICE_CONTROL_SESSIONCHANGE to the plug-in, if it exists, for delivery on its
// own thread; returns at once.
void RelaySessionChange(DWORD event, const WTSSESSION_NOTIFICATION* notification);

}  // namespace host
