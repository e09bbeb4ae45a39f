// Real per-process processor and I/O figures for a module run under Wine, where
// GetProcessTimes of another process answers constants and GetProcessIoCounters zeros.
//
// After loading LumeraPlg.dll the development host calls InstallProcessAccounting with its
// module handle (a test may pass its own executable's): the module's imports of
// GetProcessTimes and GetProcessIoCounters from kernel32 are redirected to functions that
// first call the originals (so a bad handle fails as before) and then replace the figures:
//   - kernel and user time from NtQuerySystemInformation(SystemProcessInformation) by
//     Windows pid, which Wine fills from the Linux accounting of the process's threads;
//   - read/write transfer counts from read_bytes/write_bytes of Z:\proc\<linux pid>\io, the
//     bytes the process made the storage read and write. rchar/wchar would count every read
//     and write call as Windows does, but under Wine they also count each process's requests
//     to the wineserver and its replies (a child that made a few thousand server calls showed
//     0.85 MB more written and 5.7 MB read against 4 MB it wrote), which would rate idle
//     programs as disk-heavy; the price is that reads served from the page cache count 0.
//     Read/write operation counts come from syscr/syscw, other transfers are 0.
// The last figures of each process are kept, so a process that has ended keeps answering
// them, as on Windows. Outside Wine (ntdll.dll without wine_get_version) nothing is done.
#pragma once

#include <windows.h>

namespace host::wine {

// Returns how many import slots were redirected (0 outside Wine or when the module does not
// import the functions).
int InstallProcessAccounting(HMODULE module);

// The replacements themselves, for tests that call them directly.
BOOL WINAPI AccountedGetProcessTimes(HANDLE process, LPFILETIME creation, LPFILETIME exit, LPFILETIME kernel,
                                     LPFILETIME user);
BOOL WINAPI AccountedGetProcessIoCounters(HANDLE process, PIO_COUNTERS counters);

}  // namespace host::wine
