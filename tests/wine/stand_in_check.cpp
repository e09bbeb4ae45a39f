// Run inside a prefix after winestandins/install.sh: loads "Wevtapi.dll" by name as the
// module does and prints where it came from and how many boot events the channel holds.
// Exit 0 when the stand-in answered, 1 when Wine's own library (or none) was loaded.
#include <windows.h>
#include <winevt.h>

#include <cstdio>

#include "common/unique_handle.h"

int main() {
  ky::unique_module library(::LoadLibraryW(L"Wevtapi.dll"));
  if (!library) return 1;
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(library.get(), path, MAX_PATH);
  const auto query = reinterpret_cast<decltype(&::EvtQuery)>(
      reinterpret_cast<void*>(::GetProcAddress(library.get(), "EvtQuery")));
  const auto next = reinterpret_cast<decltype(&::EvtNext)>(
      reinterpret_cast<void*>(::GetProcAddress(library.get(), "EvtNext")));
  const auto close = reinterpret_cast<decltype(&::EvtClose)>(
      reinterpret_cast<void*>(::GetProcAddress(library.get(), "EvtClose")));
  if (query == nullptr || next == nullptr || close == nullptr) return 1;
  EVT_HANDLE results = query(nullptr, L"Microsoft-Windows-Diagnostics-Performance/Operational",
                             L"Event/System[EventID=100]", EvtQueryChannelPath | EvtQueryReverseDirection);
  if (results == nullptr) {
    std::printf("%ls: the query failed (Wine's own library?)\n", path);
    return 1;
  }
  int events = 0;
  EVT_HANDLE event = nullptr;
  DWORD returned = 0;
  while (next(results, 1, &event, INFINITE, 0, &returned)) {
    ++events;
    close(event);
  }
  close(results);
  std::printf("%ls: %d boot events\n", path, events);
  return 0;
}
