// What the development host's process accounting under Wine costs the monitor for each
// followed process, against the bare calls it replaces, in the same run: one pass of
// GetProcessTimes + GetProcessIoCounters over the handles of kChildren processes of its own,
// bare and through the host's replacements, and apart the read of one Linux /proc/<pid>/io
// file, opened afresh each time against kept open and read again from its start, and the
// machine's process list the replacements take their times from.
// Usage: bench_accounting [--children N] [--rounds N]. Last line: "accounting pass: R x bare".
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "../bench_timing.h"
#include "common/unique_handle.h"
#include "lumera_dev/read_to_end.h"
#include "system_process_list.h"
#include "wine/linux_proc.h"
#include "wine/process_accounting_shims.h"

namespace {

constexpr int kDefaultChildren = 300;
constexpr int kDefaultRounds = 21;
// The monitor samples once a second; the host's list of process times is kept 200 ms, so
// passes further apart than that each pay for a fresh list, as the monitor's do.
constexpr DWORD kPassGapMs = 250;
constexpr DWORD kChildLifeMs = 600000;
constexpr char kUsage[] = "usage: bench_accounting [--children N] [--rounds N]\n";

double PassMicroseconds(const std::vector<ky::unique_handle>& processes, bool accounted) {
  FILETIME creation{}, exit{}, kernel{}, user{};
  IO_COUNTERS io{};
  const double start = bench::NowMicroseconds();
  for (const ky::unique_handle& process : processes) {
    if (accounted) {
      (void)host::wine::AccountedGetProcessTimes(process.get(), &creation, &exit, &kernel, &user);
      (void)host::wine::AccountedGetProcessIoCounters(process.get(), &io);
    } else {
      (void)::GetProcessTimes(process.get(), &creation, &exit, &kernel, &user);
      (void)::GetProcessIoCounters(process.get(), &io);
    }
  }
  return bench::NowMicroseconds() - start;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--child") {
    ::Sleep(kChildLifeMs);
    return 0;
  }
  int children = kDefaultChildren;
  int rounds = kDefaultRounds;
  if (!bench::ParseCountOptions(argc, argv, kUsage, {{"--children", &children}, {"--rounds", &rounds}}, 2000)) return 2;

  wchar_t image[MAX_PATH] = {};
  if (::GetModuleFileNameW(nullptr, image, MAX_PATH) == 0) return 1;
  std::vector<ky::unique_handle> processes;
  for (int i = 0; i < children; ++i) {
    std::wstring line = L"\"" + std::wstring(image) + L"\" --child";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(image, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) break;
    ky::unique_handle thread(info.hThread);
    processes.emplace_back(info.hProcess);
  }
  // Each copy is found on the Linux side once it is loaded; one accounted pass finds them all.
  for (DWORD waited = 0; waited < 60000; waited += 500) {
    ::Sleep(500);
    IO_COUNTERS io{};
    if (host::wine::AccountedGetProcessIoCounters(processes.back().get(), &io) && io.ReadOperationCount > 0) break;
  }
  (void)PassMicroseconds(processes, true);

  std::vector<double> bare, accounted, reopened, kept, listed;
  host::SystemProcessList list;
  const std::wstring path = L"Z:\\proc\\self\\io";
  ky::unique_file open(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  for (int round = 0; round < rounds; ++round) {
    ::Sleep(kPassGapMs);
    bare.push_back(PassMicroseconds(processes, false));
    ::Sleep(kPassGapMs);
    accounted.push_back(PassMicroseconds(processes, true));
    std::string text;
    double start = bench::NowMicroseconds();
    for (std::size_t i = 0; i < processes.size(); ++i) (void)host::wine::ReadLinuxFile(path, text);
    reopened.push_back(bench::NowMicroseconds() - start);
    start = bench::NowMicroseconds();
    for (std::size_t i = 0; i < processes.size(); ++i) {
      text.clear();
      (void)::SetFilePointer(open.get(), 0, nullptr, FILE_BEGIN);
      (void)lumera::dev::ReadToEnd(open.get(), 64 * 1024, text);
    }
    kept.push_back(bench::NowMicroseconds() - start);
    start = bench::NowMicroseconds();
    (void)list.Refresh();
    listed.push_back(bench::NowMicroseconds() - start);
  }
  for (const ky::unique_handle& process : processes) (void)::TerminateProcess(process.get(), 0);

  const double n = processes.empty() ? 1 : static_cast<double>(processes.size());
  const double b = bench::Median(bare), a = bench::Median(accounted);
  std::printf("processes: %zu, rounds: %d (medians, microseconds a process)\n", processes.size(), rounds);
  std::printf("bare GetProcessTimes + GetProcessIoCounters: %.1f\n", b / n);
  std::printf("through the host's accounting: %.1f\n", a / n);
  std::printf("/proc/<pid>/io opened, read and closed: %.1f; kept open and read again: %.1f\n",
              bench::Median(reopened) / n, bench::Median(kept) / n);
  std::printf("the machine's process list (one NtQuerySystemInformation): %.0f a list\n", bench::Median(listed));
  std::printf("accounting pass: %.1f x bare\n", b > 0 ? a / b : 0);
  return 0;
}
