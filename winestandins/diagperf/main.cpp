// diagperf.exe: does in a Wine prefix what Windows' diagnostics service does after a boot.
// Once the user has logged on (the development switch ConsoleSession = 1, see
// dev/lumera_dev/console_session.h; without the switch the user counts as logged on when
// the writer starts) it watches the processors (GetSystemTimes) and, when the machine has
// been idle enough for the whole window, appends one event 100 for this boot to the stand-in
// channel's store, with MainPathBootTime = ms from machine start to logon, BootPostBootTime =
// ms from logon to the start of the idle window and BootTime = their sum; the stand-in
// wevtapi.dll delivers it to subscribers. Then it exits.
//
//   diagperf.exe [--idle-seconds N] [--idle-percent P] [--poll-ms N] [--max-seconds N]
//
// Exit codes: 0 written (or already written for this boot), 1 not written within
// --max-seconds or the store could not be written, 2 bad command line.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "common/boot_event_store.h"
#include "common/command_line.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "idle_watch.h"
#include "lumera_dev/console_session.h"

namespace {

constexpr unsigned long kDefaultPollMs = 1000;
constexpr unsigned long kDefaultMaxSeconds = 900;
constexpr unsigned long kMaxSecondsLimit = 7 * 24 * 3600;

struct Options {
  unsigned long idleSeconds = winestandins::IdleWatch::kIdleWindowMs / 1000;
  unsigned long idlePercent = static_cast<unsigned long>(winestandins::IdleWatch::kIdleShare * 100);
  unsigned long pollMs = kDefaultPollMs;
  unsigned long maxSeconds = kDefaultMaxSeconds;
};

bool Number(const wchar_t* text, unsigned long limit, unsigned long& out) {
  if (text == nullptr || *text == L'\0') return false;
  wchar_t* end = nullptr;
  const unsigned long value = std::wcstoul(text, &end, 10);
  if (end == nullptr || *end != L'\0' || value > limit || text[0] == L'-') return false;
  out = value;
  return true;
}

bool Parse(Options& options) {
  std::vector<std::wstring> argv;
  if (!ky::ProcessArguments(argv)) return false;
  const int argc = static_cast<int>(argv.size());
  for (int i = 1; i < argc; i += 2) {
    const std::wstring& arg = argv[i];
    const wchar_t* value = i + 1 < argc ? argv[i + 1].c_str() : nullptr;
    bool ok = false;
    if (arg == L"--idle-seconds") ok = Number(value, 3600, options.idleSeconds);
    else if (arg == L"--idle-percent") ok = Number(value, 100, options.idlePercent);
    else if (arg == L"--poll-ms") ok = Number(value, 60000, options.pollMs) && options.pollMs > 0;
    else if (arg == L"--max-seconds") ok = Number(value, kMaxSecondsLimit, options.maxSeconds);
    if (!ok) return false;
  }
  return true;
}

std::uint64_t Now() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return ky::FileTimeToU64(now);
}

// True when the store already holds an event created since this machine started.
bool WrittenThisBoot(const std::wstring& store) {
  std::vector<winestandins::BootEventRecord> records;
  if (!winestandins::ReadBootEvents(store, records)) return false;
  const std::uint64_t bootStart = Now() - ::GetTickCount64() * 10000;
  for (const auto& record : records) {
    if (record.created >= bootStart) return true;
  }
  return false;
}

}  // namespace

int main() {
  Options options;
  if (!Parse(options)) {
    std::fwprintf(stderr,
                  L"usage: diagperf.exe [--idle-seconds N] [--idle-percent P] [--poll-ms N] [--max-seconds N]\n");
    return 2;
  }
  const std::wstring store = winestandins::BootEventStorePath();
  if (store.empty()) {
    std::fwprintf(stderr, L"diagperf: no ProgramData folder for the event store\n");
    return 1;
  }
  if (WrittenThisBoot(store)) {
    std::wprintf(L"diagperf: the boot event of this boot is already in %ls\n", store.c_str());
    return 0;
  }
  ky::unique_handle never(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const ULONGLONG started = ::GetTickCount64();
  const ULONGLONG deadline = started + static_cast<ULONGLONG>(options.maxSeconds) * 1000;
  while (lumera::dev::StagedConsoleSession() == lumera::dev::ConsoleSession::kLoggedOff) {
    if (::GetTickCount64() >= deadline) {
      std::fwprintf(stderr, L"diagperf: nobody logged on within %lu s\n", options.maxSeconds);
      return 1;
    }
    ::WaitForSingleObject(never.get(), options.pollMs);
  }
  const auto logonTick = static_cast<std::uint32_t>(::GetTickCount64());
  winestandins::IdleWatch watch(options.idlePercent / 100.0, options.idleSeconds * 1000);
  for (;;) {
    FILETIME idle{}, kernel{}, user{};
    if (::GetSystemTimes(&idle, &kernel, &user)) {
      const auto tick = static_cast<std::uint32_t>(::GetTickCount64());
      if (const auto idleSince = watch.Feed(tick, ky::FileTimeToU64(idle), ky::FileTimeToU64(kernel), ky::FileTimeToU64(user))) {
        winestandins::BootEventRecord record;
        record.created = Now();
        record.mainPathBootTime = logonTick;
        record.postBootTime = *idleSince - logonTick;
        record.bootTime = record.mainPathBootTime + record.postBootTime;
        if (const DWORD error = winestandins::AppendBootEvent(store, record); error != 0) {
          std::fwprintf(stderr, L"diagperf: writing %ls failed %lu\n", store.c_str(), error);
          return 1;
        }
        std::wprintf(L"diagperf: event 100 #%llu BootTime=%u (MainPathBootTime=%u BootPostBootTime=%u) in %ls\n",
                     static_cast<unsigned long long>(record.id), record.bootTime, record.mainPathBootTime,
                     record.postBootTime, store.c_str());
        return 0;
      }
    }
    if (::GetTickCount64() >= deadline) {
      std::fwprintf(stderr, L"diagperf: the machine did not become idle within %lu s\n", options.maxSeconds);
      return 1;
    }
    ::WaitForSingleObject(never.get(), options.pollMs);
  }
}
