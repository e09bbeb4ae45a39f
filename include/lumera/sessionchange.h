// Session notifications: the host plug-in "sessionchange" (identifier
// lumera::ids::SessionChangePlugin) relays the system's session changes to registered
// ISessionChangeEvents handlers, and the module's logon tracker turns them into
// IUserLogonObserver calls.
//
// The plug-in calls its handlers on a host thread of its own, one notification at a time,
// in the order they arrived; once UnregisterEventsHandler has returned a handler is not
// called again. A handler must only copy and queue, never block.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <cstdint>

#include "lumera/ky_base.h"

struct ISessionChangeEvents {
  virtual ~ISessionChangeEvents() = default;  // slot 0
  // `time` is the tick count when the host saw the change, `event` a WTS_* code
  // (WTS_CONSOLE_CONNECT 1 ... WTS_SESSION_UNLOCK 8); `notification` is valid only during
  // the call.
  virtual std::uint32_t OnSessionChange(std::uint32_t time, std::uint32_t event,
                                        WTSSESSION_NOTIFICATION* notification) = 0;  // slot 1
};

struct ISessionChangePlugin : IServPlugin {
  // Adds a handler. Returns 0, 13 for null, 183 when it is already registered.
  virtual std::uint32_t RegisterEventsHandler(ISessionChangeEvents* handler) = 0;  // slot 5
  // Removes a handler; must not be called from inside a notification. Returns 0, 13 for
  // null, 1168 when it is not registered.
  virtual std::uint32_t UnregisterEventsHandler(ISessionChangeEvents* handler) = 0;  // slot 6
};

// Observers of the logon tracker, called on its serial execution with `time` as the
// notification carried it and `user` as "DOMAIN\name" or "name" (valid only during the call).
// An observer must not register or unregister observers from inside a call.
struct IUserLogonObserver {
  virtual void OnLogon(std::uint32_t time, const wchar_t* user) = 0;   // slot 0
  virtual void OnLogoff(std::uint32_t time, const wchar_t* user) = 0;  // slot 1

 protected:
  ~IUserLogonObserver() = default;
};
