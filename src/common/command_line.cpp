#include "common/command_line.h"

#include <windows.h>
#include <shellapi.h>

#include "common/unique_handle.h"

namespace ky {

bool ProcessArguments(std::vector<std::wstring>& out) {
  out.clear();
  int count = 0;
  const unique_local memory(reinterpret_cast<HLOCAL>(::CommandLineToArgvW(::GetCommandLineW(), &count)));
  if (!memory) return false;
  auto* const* list = reinterpret_cast<LPWSTR*>(memory.get());
  out.assign(list, list + count);
  return true;
}

}  // namespace ky
