// Run inside a prefix after winestandins/install.sh: loads "Wevtapi.dll" by name as the
// module does and prints where it came from and how many boot events the channel holds.
// Exit 0 when the stand-in answered, 1 when Wine's own library (or none) was loaded.
#include <windows.h>
#include <winevt.h>

#include <cstdio>

#include "common/module_library.h"

int main() {
  ky::ModuleLibrary library;
  if (library.Load(L"Wevtapi.dll") != 0) return 1;
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(library.get(), path, MAX_PATH);
  decltype(&::EvtQuery) query = nullptr;
  decltype(&::EvtNext) next = nullptr;
  decltype(&::EvtClose) close = nullptr;
  const std::uint32_t bound = library.Bind(
      {KY_BIND_DECLARED(EvtQuery, query), KY_BIND_DECLARED(EvtNext, next), KY_BIND_DECLARED(EvtClose, close)});
  if (bound != 0) return 1;
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
