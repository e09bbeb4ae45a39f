// The service's account under Wine. On Windows the host runs as LocalSystem and every client of
// its pipes checks that (pipelink.dll asks the serving process's token for its user); under Wine
// every process runs as one account, so a process that serves as the service would holds a
// LocalSystemStandIn, and the stand-ins below, installed on pipelink.dll's imports, answer
// S-1-5-18 for that process's token. A process that holds none is seen as what it is: an
// ordinary user's, and the clients refuse it. The module's code is the code that runs on Windows.
#pragma once

#include <windows.h>

#include "common/unique_handle.h"

namespace lumera::dev {

// Held by a process that stands for LocalSystem (the development host, the stand-in central
// component, a test that serves in-process): while at least one is alive, StandsForLocalSystem
// is true for this process. Outside Wine nothing is made.
class LocalSystemStandIn {
 public:
  LocalSystemStandIn();
  LocalSystemStandIn(const LocalSystemStandIn&) = delete;
  LocalSystemStandIn& operator=(const LocalSystemStandIn&) = delete;

  bool Active() const { return marker_.valid(); }

 private:
  ky::unique_handle marker_;
};

// True when process `pid` holds a LocalSystemStandIn (always false outside Wine).
[[nodiscard]] bool StandsForLocalSystem(DWORD pid);

// Redirects `module`'s imports of OpenProcessToken and GetTokenInformation: a TokenUser query on
// a token opened for a process that stands for LocalSystem answers S-1-5-18; every other call
// goes to the system. Returns the slots patched: 0 outside Wine or for a null module.
int InstallLocalSystemStandIn(HMODULE module);

}  // namespace lumera::dev
