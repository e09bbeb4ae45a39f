// The machine's processes as NtQuerySystemInformation(SystemProcessInformation) lists them, in
// one call for the whole machine: a toolhelp snapshot costs that same call and a copy besides.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace host {

// ntdll's process queries, bound all-or-nothing once per process: both null when either is missing.
struct NtProcessQueries {
  NtProcessQueries();
  decltype(&::NtQuerySystemInformation) querySystem = nullptr;
  decltype(&::NtQueryInformationProcess) queryProcess = nullptr;
};
[[nodiscard]] const NtProcessQueries& NtQueries();

struct SystemProcess {
  DWORD pid = 0;
  DWORD ppid = 0;
  std::uint64_t created = 0;  // file time
  std::uint64_t kernel = 0;   // 100-ns units
  std::uint64_t user = 0;
  std::wstring_view name;     // executable file name; valid until the next Refresh
};

class SystemProcessList {
 public:
  // Takes a fresh list; false when the system gives none (the list is then empty).
  [[nodiscard]] bool Refresh();

  // Calls `visit(const SystemProcess&)` for every listed process.
  template <class Visit>
  void ForEach(Visit&& visit) const {
    SystemProcess process;
    for (std::size_t offset = 0; Read(offset, process);) visit(std::as_const(process));
  }

 private:
  // Fills `out` from the entry at `offset` and moves `offset` to the next one; false past the
  // last entry, or for an entry that does not fit the data.
  bool Read(std::size_t& offset, SystemProcess& out) const;

  std::vector<BYTE> buffer_;
  std::size_t used_ = 0;
};

}  // namespace host
