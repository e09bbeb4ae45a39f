// workload.exe: a startup program with a known profile, for staged boots. It keeps the
// processor busy for a given CPU time, then writes a given number of megabytes and flushes
// them, then stays quiet; with --report it records what it did, on the same clock the
// boot-time module samples with. With --children it first starts that many light copies of
// itself, which stand in for the many small processes of a real boot.
//
//   workload.exe [--busy-ms N] [--write-mb N | --write-kb N] [--quiet-ms N] [--folder DIR]
//                [--report FILE] [--children N] [--wait-for PID]
//
// Exit codes: 0 done, 1 the file could not be written, 2 bad command line.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/module_library.h"
#include "common/text_convert.h"
#include "common/unique_handle.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr unsigned long kMaxBusyMs = 60000;
constexpr unsigned long kMaxWriteMb = 256;
constexpr unsigned long kMaxQuietMs = 600000;
constexpr unsigned long kMaxWriteKb = kMaxWriteMb * 1024;
constexpr unsigned long kMaxChildren = 1000;
constexpr DWORD kChunkBytes = 1024 * 1024;
// What each started copy does: a small known CPU and disk share, then nothing until its parent ends.
constexpr wchar_t kChildProfile[] = L"--busy-ms 20 --write-kb 64";
// Wine loads a process in some tens of ms of CPU; a loaded machine may take a few times that.
constexpr DWORD kChildrenReadyMsEach = 500;
constexpr DWORD kChildrenReadyMsMin = 30000;

constexpr char kHelp[] =
    "usage: workload [--busy-ms N] [--write-mb N | --write-kb N] [--quiet-ms N] [--folder DIR]\n"
    "                [--report FILE] [--children N] [--wait-for PID]\n"
    "\n"
    "Burns N ms of processor time on one thread, then writes and flushes N MB to a file in DIR,\n"
    "then stays quiet for N ms and ends.\n"
    "\n"
    "  --busy-ms N    processor time to burn, 0-60000 (default 500)\n"
    "  --write-mb N   megabytes to write, 0-256 (default 2)\n"
    "  --write-kb N   kilobytes to write instead, 0-262144\n"
    "  --quiet-ms N   time to stay alive afterwards, 0-600000 (default 3000)\n"
    "  --children N   first start N copies of itself, 0-1000, each burning 20 ms and writing\n"
    "                 64 KB in DIR and then waiting for this one to end; the burn starts once\n"
    "                 all of them have done their share\n"
    "  --wait-for PID stay quiet until that process ends, at most --quiet-ms\n"
    "  --folder DIR   where the data file goes (default: the temporary folder)\n"
    "  --report FILE  write pid, busy start and end (tick count, ms), CPU ms burned, bytes\n"
    "                 written and the user profile it ran in as one JSON object\n"
    "  --help         this text\n"
    "\n"
    "Exit codes: 0 done, 1 the file could not be written, 2 bad command line.\n";

struct Options {
  unsigned long busyMs = 500;
  unsigned long writeKb = 2 * 1024;
  unsigned long quietMs = 3000;
  unsigned long children = 0;
  unsigned long waitFor = 0;
  std::wstring folder;
  std::wstring report;
  bool help = false;
};

struct Outcome {
  DWORD busyStart = 0;
  DWORD busyEnd = 0;
  std::uint64_t cpuMs = 0;
  std::uint64_t written = 0;
  unsigned long childrenReady = 0;
};

bool ParseNumber(const std::wstring& text, unsigned long limit, unsigned long& out) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of(L"0123456789") != std::wstring::npos) return false;
  out = std::wcstoul(text.c_str(), nullptr, 10);
  return out <= limit;
}

// Empty reason: parsed.
std::string Parse(const std::vector<std::wstring>& args, Options& options) {
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::wstring& arg = args[i];
    if (arg == L"--help" || arg == L"-h") {
      options.help = true;
      continue;
    }
    if (i + 1 >= args.size()) return "option " + ky::WideToUtf8(arg) + " unknown or without its value";
    const std::wstring& value = args[++i];
    if (arg == L"--busy-ms") {
      if (!ParseNumber(value, kMaxBusyMs, options.busyMs)) return "--busy-ms takes 0-60000";
    } else if (arg == L"--write-mb") {
      if (!ParseNumber(value, kMaxWriteMb, options.writeKb)) return "--write-mb takes 0-256";
      options.writeKb *= 1024;
    } else if (arg == L"--write-kb") {
      if (!ParseNumber(value, kMaxWriteKb, options.writeKb)) return "--write-kb takes 0-262144";
    } else if (arg == L"--children") {
      if (!ParseNumber(value, kMaxChildren, options.children)) return "--children takes 0-1000";
    } else if (arg == L"--wait-for") {
      if (!ParseNumber(value, 0xFFFFFFFFul, options.waitFor) || options.waitFor == 0) return "--wait-for takes a process id";
    } else if (arg == L"--quiet-ms") {
      if (!ParseNumber(value, kMaxQuietMs, options.quietMs)) return "--quiet-ms takes 0-600000";
    } else if (arg == L"--folder") {
      options.folder = value;
    } else if (arg == L"--report") {
      options.report = value;
    } else {
      return "unknown option " + ky::WideToUtf8(arg);
    }
  }
  return {};
}

std::uint64_t ThreadCpuMs() {
  FILETIME created{}, exited{}, kernel{}, user{};
  if (!::GetThreadTimes(::GetCurrentThread(), &created, &exited, &kernel, &user)) return 0;
  return (ky::FileTimeToU64(kernel) + ky::FileTimeToU64(user)) / 10000;
}

std::uint64_t ProcessCpuMs() {
  FILETIME created{}, exited{}, kernel{}, user{};
  if (!::GetProcessTimes(::GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
  return (ky::FileTimeToU64(kernel) + ky::FileTimeToU64(user)) / 10000;
}

// Spins on this thread until it has used `ms` of processor time, whatever share of a core it gets.
void Burn(unsigned long ms) {
  const std::uint64_t until = ThreadCpuMs() + ms;
  volatile std::uint64_t sink = 0;
  while (ThreadCpuMs() < until) {
    for (int i = 0; i < 200000; ++i) sink = sink * 6364136223846793005ull + 1442695040888963407ull;
  }
}

bool WriteData(const std::wstring& folder, unsigned long kilobytes, std::uint64_t& written) {
  if (kilobytes == 0) return true;
  std::wstring path = folder;
  if (!path.empty() && path.back() != L'\\' && path.back() != L'/') path += L'\\';
  path += L"workload-" + std::to_wstring(::GetCurrentProcessId()) + L".bin";
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;
  std::vector<char> chunk(kChunkBytes);
  for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 31 + 7);
  for (std::uint64_t left = std::uint64_t{kilobytes} * 1024; left > 0;) {
    const DWORD size = left < kChunkBytes ? static_cast<DWORD>(left) : kChunkBytes;
    DWORD done = 0;
    if (!::WriteFile(file.get(), chunk.data(), size, &done, nullptr) || done != size) return false;
    written += done;
    left -= done;
  }
  return ::FlushFileBuffers(file.get()) != FALSE;
}

// `text` as a JSON string; a path holds no control characters, so quotes and backslashes are all to escape.
std::string JsonString(const std::wstring& text) {
  std::string out = "\"";
  for (const char c : ky::WideToUtf8(text)) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

bool WriteReport(const std::wstring& path, const Outcome& outcome) {
  char numbers[192];
  const int length = std::snprintf(
      numbers, sizeof numbers, "{\"pid\": %lu, \"busyStartTick\": %lu, \"busyEndTick\": %lu, \"cpuMs\": %llu, \"writtenBytes\": %llu",
      static_cast<unsigned long>(::GetCurrentProcessId()), static_cast<unsigned long>(outcome.busyStart),
      static_cast<unsigned long>(outcome.busyEnd), static_cast<unsigned long long>(outcome.cpuMs),
      static_cast<unsigned long long>(outcome.written));
  if (length <= 0 || length >= static_cast<int>(sizeof numbers)) return false;
  wchar_t profile[MAX_PATH] = {};
  const DWORD profileChars = ::GetEnvironmentVariableW(L"USERPROFILE", profile, MAX_PATH);
  // Whose environment it was started in tells a delayed start as the user from one as the service.
  const std::string text = std::string(numbers, static_cast<std::size_t>(length)) + ", \"userProfile\": " +
                           JsonString(profileChars < MAX_PATH ? profile : L"") +
                           ", \"childrenReady\": " + std::to_string(outcome.childrenReady) + "}\n";
  // Written beside itself and renamed so a reader never sees half a report.
  const std::wstring partial = path + L".partial";
  {
    ky::unique_file file(::CreateFileW(partial.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD done = 0;
    if (!file || !::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &done, nullptr)) return false;
  }
  return ::MoveFileExW(partial.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
}

// The copies of one parent count themselves done on a semaphore named after it.
std::wstring ChildrenSemaphoreName(DWORD parent) { return L"Local\\LumeraWorkloadChildren-" + std::to_wstring(parent); }

// Starts `count` copies and waits, bounded, until each has done its share; returns how many did.
unsigned long StartChildren(const Options& options) {
  const DWORD self = ::GetCurrentProcessId();
  ky::unique_handle done(::CreateSemaphoreW(nullptr, 0, static_cast<LONG>(kMaxChildren), ChildrenSemaphoreName(self).c_str()));
  wchar_t image[MAX_PATH] = {};
  const DWORD imageChars = ::GetModuleFileNameW(nullptr, image, MAX_PATH);
  if (!done || imageChars == 0 || imageChars >= MAX_PATH) return 0;
  std::wstring command = L"\"" + std::wstring(image) + L"\" " + kChildProfile + L" --quiet-ms " +
                         std::to_wstring(kMaxQuietMs) + L" --wait-for " + std::to_wstring(self);
  if (!options.folder.empty()) {
    // A quote right after a backslash would be read as a literal quote, so a trailing one is doubled.
    command += L" --folder \"" + options.folder + (options.folder.back() == L'\\' ? L"\\\"" : L"\"");
  }
  unsigned long started = 0;
  for (unsigned long i = 0; i < options.children; ++i) {
    std::vector<wchar_t> line(command.begin(), command.end());
    line.push_back(L'\0');
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(image, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &startup, &info)) {
      std::fprintf(stderr, "workload: starting copy %lu failed %lu\n", i + 1, ::GetLastError());
      break;
    }
    ky::unique_handle process(info.hProcess);
    ky::unique_handle thread(info.hThread);
    ++started;
  }
  const DWORD limit = std::max<DWORD>(kChildrenReadyMsMin, started * kChildrenReadyMsEach);
  const DWORD begin = ::GetTickCount();
  unsigned long ready = 0;
  while (ready < started) {
    const DWORD spent = ::GetTickCount() - begin;
    if (spent >= limit || ::WaitForSingleObject(done.get(), limit - spent) != WAIT_OBJECT_0) break;
    ++ready;
  }
  if (ready < started) std::fprintf(stderr, "workload: %lu of %lu copies did their share in time\n", ready, started);
  return ready;
}

// A copy's share is counted done on its parent's semaphore; a copy without one is not an error.
void TellParentDone(DWORD parent) {
  ky::unique_handle done(::OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, ChildrenSemaphoreName(parent).c_str()));
  if (done) (void)::ReleaseSemaphore(done.get(), 1, nullptr);
}

void StayQuiet(const Options& options) {
  if (options.waitFor == 0) {
    ::Sleep(options.quietMs);
    return;
  }
  ky::unique_handle parent(::OpenProcess(SYNCHRONIZE, FALSE, options.waitFor));
  if (parent) (void)::WaitForSingleObject(parent.get(), options.quietMs);
}

}  // namespace

int main() {
  std::vector<std::wstring> args;
  (void)ky::ProcessArguments(args);  // an unsplittable command line parses as no options

  Options options;
  const std::string reason = Parse(args, options);
  if (!reason.empty()) {
    std::fprintf(stderr, "workload: %s (see --help)\n", reason.c_str());
    return kExitUsage;
  }
  if (options.help) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (options.folder.empty()) {
    wchar_t temp[MAX_PATH + 1] = {};
    const DWORD chars = ::GetTempPathW(MAX_PATH + 1, temp);
    if (chars > 0 && chars <= MAX_PATH) options.folder = temp;
  }

  Outcome outcome;
  if (options.children > 0) outcome.childrenReady = StartChildren(options);
  outcome.busyStart = ::GetTickCount();
  Burn(options.busyMs);
  outcome.busyEnd = ::GetTickCount();
  const bool wrote = WriteData(options.folder, options.writeKb, outcome.written);
  outcome.cpuMs = ProcessCpuMs();
  if (options.waitFor != 0) TellParentDone(options.waitFor);
  if (!wrote) std::fprintf(stderr, "workload: writing in %s failed %lu\n", ky::WideToUtf8(options.folder).c_str(), ::GetLastError());
  if (!options.report.empty() && !WriteReport(options.report, outcome)) {
    std::fprintf(stderr, "workload: the report could not be written %lu\n", ::GetLastError());
    return kExitFailed;
  }
  StayQuiet(options);
  return wrote ? kExitOk : kExitFailed;
}
