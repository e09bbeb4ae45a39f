// Times one Processes::Update pass over about kRecords followed processes against the bare
// GetProcessTimes + GetProcessIoCounters calls on the same handles, in the same run.
// Usage: bench_sampling [rounds]. Last line: "sampling pass: R x bare" (R the median ratio).
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "../bench_timing.h"
#include "boottime/boot_time_data.h"
#include "boottime/process_utils.h"
#include "boottime/processes.h"
#include "common/log.h"
#include "common/unique_handle.h"

namespace {

constexpr std::size_t kRecords = 300;
constexpr int kDefaultRounds = 41;

// Pids that the tracker can open, so that no record is dropped for a failed read.
std::vector<std::uint32_t> OpenablePids() {
  std::vector<std::uint32_t> result;
  for (std::uint32_t pid : boottime::utils::GetAllProcessesPids()) {
    ky::unique_handle process(::OpenProcess(boottime::BootTimeMonitor::Processes::kAccess, FALSE, pid));
    FILETIME a, b, c, d;
    IO_COUNTERS io;
    if (process && ::GetProcessTimes(process.get(), &a, &b, &c, &d) && ::GetProcessIoCounters(process.get(), &io)) {
      result.push_back(pid);
    }
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : kDefaultRounds;
  // The module keeps the logging library loaded while it runs; so does the benchmark.
  logging::LogRef keepLog;
  const std::vector<std::uint32_t> pids = OpenablePids();
  if (pids.empty()) {
    std::printf("no process can be opened\n");
    return 1;
  }
  std::printf("%zu records over %zu processes, %d rounds\n", kRecords, pids.size(), rounds);

  std::vector<double> passes, bares, ratios;
  int skipped = 0;
  for (int round = 0; round < rounds; ++round) {
    boottime::BootTimeData data;
    boottime::BootTimeMonitor::Processes processes(&data);
    for (std::size_t i = 0; i < kRecords; ++i) (void)processes.Add(pids[i % pids.size()]);
    std::vector<HANDLE> handles;
    for (const boottime::TrackedProcess& record : processes.List()) handles.push_back(record.handle);

    auto timeBare = [&] {
      const double start = bench::NowMicroseconds();
      for (HANDLE handle : handles) {
        FILETIME creation, exit, kernel, user;
        IO_COUNTERS io;
        (void)::GetProcessTimes(handle, &creation, &exit, &kernel, &user);
        (void)::GetProcessIoCounters(handle, &io);
      }
      return bench::NowMicroseconds() - start;
    };
    auto timePass = [&] {
      const double start = bench::NowMicroseconds();
      processes.Update();
      return bench::NowMicroseconds() - start;
    };
    // Alternating which goes first keeps a warm or cold start from favouring either side.
    double bare = 0;
    double pass = 0;
    if (round % 2 == 0) {
      bare = timeBare();
      pass = timePass();
    } else {
      pass = timePass();
      bare = timeBare();
    }
    if (processes.Count() != handles.size()) {
      ++skipped;  // a followed process ended during the round
      continue;
    }
    passes.push_back(pass);
    bares.push_back(bare);
    ratios.push_back(pass / bare);
  }
  if (ratios.empty()) {
    std::printf("every round lost a process\n");
    return 1;
  }
  if (skipped > 0) std::printf("%d round(s) skipped: a process ended\n", skipped);
  std::printf("median Update pass: %.1f us\n", bench::Median(passes));
  std::printf("median bare calls:  %.1f us\n", bench::Median(bares));
  std::printf("sampling pass: %.2f x bare\n", bench::Median(ratios));
  return 0;
}
