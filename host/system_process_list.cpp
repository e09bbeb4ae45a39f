#include "system_process_list.h"

#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <limits>

#include "common/module_library.h"

namespace host {
namespace {

constexpr std::size_t kFirstBuffer = 256 * 1024;
constexpr std::size_t kMaxBuffer = 64 * 1024 * 1024;
constexpr std::size_t kPastEnd = std::numeric_limits<std::size_t>::max();
constexpr NTSTATUS kInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004L);

// The leading fields of a SystemProcessInformation entry; the SDK's own declaration hides the
// times and the parent among reserved bytes.
struct Entry {
  ULONG NextEntryOffset;
  ULONG NumberOfThreads;
  LARGE_INTEGER Reserved[3];
  LARGE_INTEGER CreateTime;
  LARGE_INTEGER UserTime;
  LARGE_INTEGER KernelTime;
  UNICODE_STRING ImageName;
  LONG BasePriority;
  HANDLE UniqueProcessId;
  HANDLE InheritedFromUniqueProcessId;
};

std::uint64_t U64(const LARGE_INTEGER& value) { return static_cast<std::uint64_t>(value.QuadPart); }

DWORD Pid(HANDLE value) { return static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(value)); }

}  // namespace

NtProcessQueries::NtProcessQueries() {
  // ntdll.dll is mapped into every process for its whole life: the addresses outlive this reference.
  ky::ModuleLibrary ntdll;
  if (ntdll.Load(L"ntdll.dll") != 0) return;
  (void)ntdll.Bind({KY_BIND_DECLARED(NtQuerySystemInformation, querySystem),
                    KY_BIND_DECLARED(NtQueryInformationProcess, queryProcess)});
}

const NtProcessQueries& NtQueries() {
  static const NtProcessQueries queries;
  return queries;
}

bool SystemProcessList::Refresh() {
  used_ = 0;
  const auto query = NtQueries().querySystem;
  if (query == nullptr) return false;
  if (buffer_.empty()) buffer_.resize(kFirstBuffer);
  for (;;) {
    ULONG needed = 0;
    const NTSTATUS status =
        query(SystemProcessInformation, buffer_.data(), static_cast<ULONG>(buffer_.size()), &needed);
    if (status == kInfoLengthMismatch && buffer_.size() < kMaxBuffer) {
      buffer_.resize(std::min(kMaxBuffer, std::max<std::size_t>(buffer_.size() * 2, needed + 64 * 1024)));
      continue;
    }
    if (status < 0) return false;
    break;
  }
  used_ = buffer_.size();
  return true;
}

bool SystemProcessList::Read(std::size_t& offset, SystemProcess& out) const {
  if (offset == kPastEnd || offset > used_ || used_ - offset < sizeof(Entry)) return false;
  Entry entry;
  std::copy_n(buffer_.data() + offset, sizeof entry, reinterpret_cast<BYTE*>(&entry));
  out.pid = Pid(entry.UniqueProcessId);
  out.ppid = Pid(entry.InheritedFromUniqueProcessId);
  out.created = U64(entry.CreateTime);
  out.kernel = U64(entry.KernelTime);
  out.user = U64(entry.UserTime);
  out.name = {};
  // The name lies in the same buffer; one that points elsewhere is not read.
  const auto* first = reinterpret_cast<const BYTE*>(entry.ImageName.Buffer);
  const BYTE* begin = buffer_.data();
  const std::size_t bytes = entry.ImageName.Length;
  const BYTE* end = begin + used_;
  if (first != nullptr && first >= begin && first <= end && bytes <= static_cast<std::size_t>(end - first)) {
    out.name = std::wstring_view(reinterpret_cast<const wchar_t*>(first), bytes / sizeof(wchar_t));
  }
  offset = entry.NextEntryOffset == 0 ? kPastEnd : offset + entry.NextEntryOffset;
  return true;
}

}  // namespace host
