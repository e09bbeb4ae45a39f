// Names the calling thread of the development host.
#pragma once

#include <windows.h>

#include "common/module_library.h"

namespace host {

// Gives the calling thread NAME (at most 15 characters show under Wine, which makes it the
// Linux thread's name, inherited by every thread it starts): the monitor benchmark tells the
// host's own threads from the module's by it. Does nothing where Windows lacks the call.
inline void NameThisThread(const wchar_t* name) {
  ky::ModuleLibrary kernel;
  if (kernel.Load(L"kernel32.dll") != 0) return;
  if (const auto set = kernel.Resolve<HRESULT(WINAPI*)(HANDLE, PCWSTR)>("SetThreadDescription")) {
    (void)set(::GetCurrentThread(), name);
  }
}

}  // namespace host
