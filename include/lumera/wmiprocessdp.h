// The host plug-in "wmiprocessdp" (identifier lumera::ids::WmiProcessDPPlugin): tells
// registered handlers about processes that start and end on the machine.
//
// Handlers are called on the plug-in's own thread, one notification at a time, in the
// order the plug-in observed the changes. Once UnregisterEventsHandler has returned the
// handler is not called again. A handler must return quickly.
#pragma once

#include <windows.h>

#include <cstdint>

#include "lumera/ky_base.h"

namespace lumera::ids {
inline constexpr GUID WmiProcessDPPlugin = {0x12DB8A93, 0xC487, 0x4DEF, {0xAF, 0x00, 0xD7, 0x7C, 0x24, 0x2E, 0x32, 0x53}};
}  // namespace lumera::ids

// One notification; the strings are valid only during the call and each may be null.
struct WMIProcessInfo {
  const wchar_t* name = nullptr;         // executable file name, e.g. L"notepad.exe"
  const wchar_t* commandLine = nullptr;
  const wchar_t* imagePath = nullptr;    // full path of the executable
  std::uint32_t ppid = 0;
  std::uint32_t pid = 0;
};

struct IWMIProcessDPEvents {
  virtual void OnProcessStarted(const WMIProcessInfo* info) = 0;  // slot 0
  virtual void OnProcessEnded(const WMIProcessInfo* info) = 0;    // slot 1
};

struct IWMIProcessDP : IServPlugin {
  // Adds a handler. Returns 0, 13 for null, 183 when it is already registered.
  virtual std::uint32_t RegisterEventsHandler(IWMIProcessDPEvents* handler) = 0;    // slot 5
  // Removes a handler; must not be called from inside a notification. Returns 0, 13 for
  // null, 1168 when it is not registered.
  virtual std::uint32_t UnregisterEventsHandler(IWMIProcessDPEvents* handler) = 0;  // slot 6
};
