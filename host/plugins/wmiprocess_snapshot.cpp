#include "wmiprocess_snapshot.h"

#include <windows.h>
#include <winternl.h>

#include "common/unique_handle.h"

namespace host {
namespace {

constexpr USHORT kMaxCommandLineBytes = 32767 * sizeof(wchar_t);

std::wstring ReadImagePath(HANDLE process) {
  wchar_t path[MAX_PATH * 4] = {};
  DWORD size = static_cast<DWORD>(std::size(path));
  if (!::QueryFullProcessImageNameW(process, 0, path, &size)) return {};
  return std::wstring(path, size);
}

// The command line lives in the process's own parameter block; both are 64-bit here.
std::wstring ReadCommandLine(HANDLE process) {
  const auto query = NtQueries().queryProcess;
  if (query == nullptr) return {};
  PROCESS_BASIC_INFORMATION basic{};
  if (query(process, ProcessBasicInformation, &basic, sizeof basic, nullptr) != 0 || basic.PebBaseAddress == nullptr) {
    return {};
  }
  PEB peb{};
  SIZE_T read = 0;
  if (!::ReadProcessMemory(process, basic.PebBaseAddress, &peb, sizeof peb, &read) || peb.ProcessParameters == nullptr) {
    return {};
  }
  RTL_USER_PROCESS_PARAMETERS parameters{};
  if (!::ReadProcessMemory(process, peb.ProcessParameters, &parameters, sizeof parameters, &read)) return {};
  const UNICODE_STRING& line = parameters.CommandLine;
  if (line.Buffer == nullptr || line.Length == 0 || line.Length > kMaxCommandLineBytes) return {};
  std::wstring text(line.Length / sizeof(wchar_t), L'\0');
  if (!::ReadProcessMemory(process, line.Buffer, text.data(), line.Length, &read)) return {};
  text.resize(read / sizeof(wchar_t));
  return text;
}

}  // namespace

bool TakeProcessSnapshot(SystemProcessList& list, ProcessSnapshot& snapshot) {
  snapshot.clear();
  if (!list.Refresh()) return false;
  list.ForEach([&snapshot](const SystemProcess& listed) {
    ProcessEntry& process = snapshot[listed.pid];
    process.pid = listed.pid;
    process.ppid = listed.ppid;
    process.name.assign(listed.name.substr(0, MAX_PATH - 1));
  });
  return !snapshot.empty();
}

void FillProcessDetails(ProcessEntry& entry) {
  entry.detailed = true;
  ky::unique_handle process(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, entry.pid));
  if (!process) process.reset(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, entry.pid));
  if (!process) return;
  entry.imagePath = ReadImagePath(process.get());
  entry.commandLine = ReadCommandLine(process.get());
}

void DiffSnapshots(const ProcessSnapshot& before, const ProcessSnapshot& now, std::vector<std::uint32_t>& started,
                   std::vector<std::uint32_t>& ended) {
  // Wine lists a process before its image is mapped, without a name: a name that appears is the
  // same process, and only one name replaced by another means the pid was reused.
  auto reused = [](const ProcessEntry& old, const ProcessEntry& fresh) {
    return old.ppid != fresh.ppid || (!old.name.empty() && old.name != fresh.name);
  };
  started.clear();
  ended.clear();
  for (const auto& [pid, old] : before) {
    auto it = now.find(pid);
    if (it == now.end() || reused(old, it->second)) ended.push_back(pid);
  }
  for (const auto& [pid, fresh] : now) {
    auto it = before.find(pid);
    if (it == before.end() || reused(it->second, fresh)) started.push_back(pid);
  }
}

}  // namespace host
