#include "wine/process_times_snapshot.h"

#include <winternl.h>

#include <algorithm>

namespace host::wine {
namespace {

constexpr std::size_t kFirstBuffer = 256 * 1024;
constexpr std::size_t kMaxBuffer = 64 * 1024 * 1024;
constexpr NTSTATUS kInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004L);

using QueryFn = NTSTATUS(NTAPI*)(SYSTEM_INFORMATION_CLASS, PVOID, ULONG, PULONG);

// The leading fields of a SystemProcessInformation entry; the SDK's own declaration hides
// the times among reserved bytes.
struct ProcessEntry {
  ULONG NextEntryOffset;
  ULONG NumberOfThreads;
  LARGE_INTEGER Reserved[3];
  LARGE_INTEGER CreateTime;
  LARGE_INTEGER UserTime;
  LARGE_INTEGER KernelTime;
  UNICODE_STRING ImageName;
  LONG BasePriority;
  HANDLE UniqueProcessId;
};

QueryFn Query() {
  static const QueryFn query = reinterpret_cast<QueryFn>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
  return query;
}

std::uint64_t U64(const LARGE_INTEGER& value) { return static_cast<std::uint64_t>(value.QuadPart); }

}  // namespace

bool ProcessTimesSnapshot::Get(DWORD pid, Times& out) {
  std::lock_guard hold(lock_);
  if (!taken_ || ::GetTickCount() - takenTick_ >= kMaxAgeMs) {
    if (!Refresh()) return false;
  }
  const auto it = times_.find(pid);
  if (it == times_.end()) return false;
  out = it->second;
  return true;
}

bool ProcessTimesSnapshot::Refresh() {
  const QueryFn query = Query();
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
  times_.clear();
  std::size_t offset = 0;
  for (;;) {
    if (offset + sizeof(ProcessEntry) > buffer_.size()) break;
    const auto* entry = reinterpret_cast<const ProcessEntry*>(buffer_.data() + offset);
    const auto pid = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(entry->UniqueProcessId));
    times_[pid] = Times{U64(entry->CreateTime), U64(entry->KernelTime), U64(entry->UserTime)};
    if (entry->NextEntryOffset == 0) break;
    offset += entry->NextEntryOffset;
  }
  takenTick_ = ::GetTickCount();
  taken_ = true;
  return true;
}

}  // namespace host::wine
