#include "wine/process_accounting_shims.h"

#include <iterator>
#include <map>
#include <mutex>
#include <string>

#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera_dev/console_session.h"
#include "lumera_dev/import_redirect.h"
#include "lumera_dev/read_to_end.h"
#include "wine/linux_pid_map.h"
#include "wine/linux_proc.h"
#include "wine/process_times_snapshot.h"

namespace host::wine {
namespace {

constexpr std::size_t kMaxRemembered = 4096;
// Opening a /proc file through Wine is a round of wineserver requests (measured: ~95 us, 40
// times the read itself), once a second for each followed process; an open one reads afresh
// from its start, and one of a process that has ended fails to read.
constexpr std::size_t kMaxKeptIoFiles = 512;
constexpr DWORD kKeptIoFileIdleMs = 10000;
constexpr std::size_t kIoFileLimit = 4096;

struct Remembered {
  std::uint64_t created = 0;
  ProcessTimesSnapshot::Times times;
  IO_COUNTERS io{};
  bool haveTimes = false;
  bool haveIo = false;
};

struct KeptFile {
  ky::unique_file file;
  DWORD readTick = 0;
};

struct State {
  std::mutex lock;
  std::map<DWORD, Remembered> last;
  ProcessTimesSnapshot snapshot;
  LinuxPidMap pids;
  std::mutex ioLock;
  std::map<std::uint32_t, KeptFile> ioFiles;  // by Linux pid
};

State& Shared() {
  static State state;
  return state;
}

FILETIME ToFileTime(std::uint64_t value) {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

// The entry for `pid`, emptied when it belonged to an earlier process of the same pid.
Remembered& Entry(State& state, DWORD pid, std::uint64_t created) {
  if (state.last.size() >= kMaxRemembered && state.last.count(pid) == 0) state.last.clear();
  Remembered& entry = state.last[pid];
  if (entry.created != created) {
    entry = Remembered();
    entry.created = created;
  }
  return entry;
}

// The text of Z:\proc\<linuxPid>\io, through a handle kept from the last read.
bool ReadLinuxIo(State& state, std::uint32_t linuxPid, std::string& out) {
  std::lock_guard hold(state.ioLock);
  const DWORD now = ::GetTickCount();
  auto it = state.ioFiles.find(linuxPid);
  if (it != state.ioFiles.end()) {
    out.clear();
    if (::SetFilePointer(it->second.file.get(), 0, nullptr, FILE_BEGIN) == 0 &&
        lumera::dev::ReadToEnd(it->second.file.get(), kIoFileLimit, out) && !out.empty()) {
      it->second.readTick = now;
      return true;
    }
    // The kept file was an ended process's; the pid may already be another's.
    state.ioFiles.erase(it);
  }
  if (state.ioFiles.size() >= kMaxKeptIoFiles) {
    std::erase_if(state.ioFiles, [now](const auto& kept) { return now - kept.second.readTick >= kKeptIoFileIdleMs; });
    if (state.ioFiles.size() >= kMaxKeptIoFiles) state.ioFiles.clear();
  }
  ky::unique_file file(::CreateFileW((L"Z:\\proc\\" + std::to_wstring(linuxPid) + L"\\io").c_str(), GENERIC_READ,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr));
  out.clear();
  if (!file || !lumera::dev::ReadToEnd(file.get(), kIoFileLimit, out)) return false;
  state.ioFiles[linuxPid] = KeptFile{std::move(file), now};
  return true;
}

// Kernel32's own functions, taken by name: an import of the caller's may be the one redirected.
struct Kernel32Originals {
  Kernel32Originals() {
    // kernel32.dll stays mapped for the life of every process: the addresses outlive this reference.
    ky::ModuleLibrary kernel32;
    if (kernel32.Load(L"kernel32.dll") != 0) return;
    (void)kernel32.Bind({KY_BIND_DECLARED(GetProcessTimes, times), KY_BIND_DECLARED(GetProcessIoCounters, io)});
  }
  decltype(&::GetProcessTimes) times = nullptr;
  decltype(&::GetProcessIoCounters) io = nullptr;
};

const Kernel32Originals& Originals() {
  static const Kernel32Originals originals;
  return originals;
}

std::wstring ImagePath(HANDLE process) {
  wchar_t path[MAX_PATH * 2] = {};
  DWORD size = static_cast<DWORD>(std::size(path));
  if (!::QueryFullProcessImageNameW(process, 0, path, &size)) return {};
  return std::wstring(path, size);
}

}  // namespace

BOOL WINAPI AccountedGetProcessTimes(HANDLE process, LPFILETIME creation, LPFILETIME exit, LPFILETIME kernel,
                                     LPFILETIME user) {
  if (!lumera::dev::CallOriginal(Originals().times, process, creation, exit, kernel, user)) return FALSE;
  const DWORD pid = ::GetProcessId(process);
  if (pid == 0 || pid == ::GetCurrentProcessId() || creation == nullptr || kernel == nullptr || user == nullptr) {
    return TRUE;
  }
  const std::uint64_t created = ky::FileTimeToU64(*creation);
  State& state = Shared();
  ProcessTimesSnapshot::Times times;
  const bool listed = state.snapshot.Get(pid, times);
  std::lock_guard hold(state.lock);
  Remembered& entry = Entry(state, pid, created);
  if (listed) {
    entry.times = times;
    entry.haveTimes = true;
  }
  if (entry.haveTimes) {
    *kernel = ToFileTime(entry.times.kernel);
    *user = ToFileTime(entry.times.user);
  }
  return TRUE;
}

BOOL WINAPI AccountedGetProcessIoCounters(HANDLE process, PIO_COUNTERS counters) {
  if (!lumera::dev::CallOriginal(Originals().io, process, counters)) return FALSE;
  const DWORD pid = ::GetProcessId(process);
  if (pid == 0 || counters == nullptr) return TRUE;
  FILETIME creation{}, exit{}, kernel{}, user{};
  const std::uint64_t created =
      lumera::dev::CallOriginal(Originals().times, process, &creation, &exit, &kernel, &user) ? ky::FileTimeToU64(creation) : 0;
  State& state = Shared();
  ProcessTimesSnapshot::Times times;
  const std::uint64_t started = state.snapshot.Get(pid, times) && times.created != 0 ? times.created : created;
  IO_COUNTERS io{};
  bool read = false;
  const std::uint32_t linuxPid = state.pids.Find(pid, started, [process] { return ImagePath(process); });
  if (linuxPid != 0) {
    std::string text;
    LinuxIo linuxIo;
    read = ReadLinuxIo(state, linuxPid, text) && ParseIo(text, linuxIo);
    if (read) {
      io.ReadOperationCount = linuxIo.syscr;
      io.WriteOperationCount = linuxIo.syscw;
      // A kernel without task I/O accounting lists only the call counts.
      io.ReadTransferCount = linuxIo.hasStorage ? linuxIo.readBytes : linuxIo.rchar;
      io.WriteTransferCount = linuxIo.hasStorage ? linuxIo.writeBytes : linuxIo.wchar;
    } else {
      state.pids.Forget(pid);
    }
  }
  std::lock_guard hold(state.lock);
  Remembered& entry = Entry(state, pid, created);
  if (read) {
    entry.io = io;
    entry.haveIo = true;
  }
  if (entry.haveIo) *counters = entry.io;
  return TRUE;
}

int InstallProcessAccounting(HMODULE module) {
  if (!lumera::dev::RunningUnderWine()) return 0;
  using lumera::dev::RedirectImport;
  return RedirectImport(module, "kernel32.dll", "GetProcessTimes", reinterpret_cast<void*>(&AccountedGetProcessTimes)) +
         RedirectImport(module, "kernel32.dll", "GetProcessIoCounters",
                        reinterpret_cast<void*>(&AccountedGetProcessIoCounters));
}

}  // namespace host::wine
