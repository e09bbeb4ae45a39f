// A child with a known profile for the process-accounting tests:
//   wine_workload_child.exe BURN_MS WRITE_KB FILE READY_EVENT QUIT_EVENT
// keeps one core busy for BURN_MS of its own processor time, writes WRITE_KB KiB to FILE,
// sets READY_EVENT, waits (30 s at most) for QUIT_EVENT and exits with the processor time it
// burned in milliseconds, as its own thread's times count it.
#include <windows.h>

#include <cstdint>
#include <cwchar>
#include <vector>

#include "common/module_library.h"
#include "common/unique_handle.h"

namespace {

constexpr DWORD kQuitWaitMs = 30000;

std::uint64_t ThreadCpuMs() {
  FILETIME creation{}, exit{}, kernel{}, user{};
  if (!::GetThreadTimes(::GetCurrentThread(), &creation, &exit, &kernel, &user)) return 0;
  return (ky::FileTimeToU64(kernel) + ky::FileTimeToU64(user)) / 10000;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 6) return -1;
  const std::uint64_t burnMs = std::wcstoul(argv[1], nullptr, 10);
  const DWORD writeKb = std::wcstoul(argv[2], nullptr, 10);
  volatile std::uint64_t sink = 0;
  while (ThreadCpuMs() < burnMs) {
    for (int i = 0; i < 100000; ++i) sink = sink * 6364136223846793005ull + 1442695040888963407ull;
  }
  const std::uint64_t burned = ThreadCpuMs();
  {
    ky::unique_file file(::CreateFileW(argv[3], GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return -2;
    std::vector<char> block(1024, 'w');
    for (DWORD i = 0; i < writeKb; ++i) {
      DWORD written = 0;
      if (!::WriteFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &written, nullptr)) return -3;
    }
    ::FlushFileBuffers(file.get());
  }
  ky::unique_handle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[4]));
  ky::unique_handle quit(::OpenEventW(SYNCHRONIZE, FALSE, argv[5]));
  if (!ready || !quit) return -4;
  ::SetEvent(ready.get());
  ::WaitForSingleObject(quit.get(), kQuitWaitMs);
  return static_cast<int>(burned);
}
