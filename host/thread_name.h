// Names the calling thread of the development host.
#pragma once

#include <windows.h>

namespace host {

// Gives the calling thread NAME (at most 15 characters show under Wine, which makes it the
// Linux thread's name, inherited by every thread it starts): the monitor benchmark tells the
// host's own threads from the module's by it. Does nothing where Windows lacks the call.
inline void NameThisThread(const wchar_t* name) {
  using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  const HMODULE kernel32 = ::GetModuleHandleW(L"kernel32.dll");
  if (kernel32 == nullptr) return;
  const auto set = reinterpret_cast<SetDescription>(
      reinterpret_cast<void*>(::GetProcAddress(kernel32, "SetThreadDescription")));
  if (set != nullptr) (void)set(::GetCurrentThread(), name);
}

}  // namespace host
