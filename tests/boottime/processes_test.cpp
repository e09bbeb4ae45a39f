// Following processes: the drop rules, the load arithmetic, and adding and removing records.
#include <gtest/gtest.h>

#include <vector>

#include "boottime/processes.h"
#include "boottime/processes_monitor.h"
#include "fakes.h"

namespace boottime {
namespace {

using testing::FakeClock;
using testing::FakeCounters;
using testing::ScriptedCounters;

// A pid that no process has: pids are multiples of 4.
constexpr std::uint32_t kNoSuchPid = 0x7FFFFFF1;

class ProcessesTest : public ::testing::Test {
 protected:
  // Follows this very process under `pid` (so the handle is real) with scripted counters.
  HANDLE Follow(std::uint64_t pid, FakeCounters::Script script) {
    ProcessEvent event{7, ::GetCurrentProcessId(), L"C:\\boot\\p" + std::to_wstring(pid) + L".exe"};
    EXPECT_TRUE(processes.Add(event));
    TrackedProcess& record = const_cast<TrackedProcess&>(processes.List().back());
    HANDLE handle = record.handle;
    counters.scripts[handle] = std::move(script);
    return handle;
  }
  // One monitor cycle: a second passes, then the sampling pass.
  void Cycle() {
    clock.tick += 1000;
    processes.Update();
  }
  std::size_t SamplesOf(std::uint64_t pid) {
    std::size_t n = 0;
    data.ForEachProcess([&](const ProcessSamples& p) {
      if (p.pid == pid) n = p.samples.size();
    });
    return n;
  }
  // Cycles until the list is empty (at most `limit`); returns the cycle that emptied it.
  int CyclesUntilEmpty(int limit) {
    for (int cycle = 1; cycle <= limit; ++cycle) {
      Cycle();
      if (processes.Count() == 0) return cycle;
    }
    return -1;
  }

  FakeClock clock;
  FakeCounters counters{&clock};
  BootTimeData data;
  BootTimeMonitor::Processes processes{&data, clock, counters};
};

// CPU time growing by `msPerRead` kernel milliseconds per sample (one sample per second).
FakeCounters::Script KernelGrowth(std::int64_t msPerRead) {
  return [msPerRead](int read) {
    ScriptedCounters c;
    c.kernelMs = static_cast<std::uint32_t>(100000 + msPerRead * read);
    c.read = 4096u * static_cast<std::uint64_t>(read);
    return c;
  };
}

TEST_F(ProcessesTest, QuietProcessIsDroppedAtItsTwelfthSampleAndAllTwelveAreStored) {
  Follow(1, KernelGrowth(0));
  EXPECT_EQ(CyclesUntilEmpty(40), 12);
  EXPECT_EQ(SamplesOf(::GetCurrentProcessId()), 12u) << "the sample of the dropping pass is stored too";
}

TEST_F(ProcessesTest, BusyProcessIsDroppedAtItsThirtyFirstSample) {
  Follow(1, KernelGrowth(500));  // 50 % of one processor
  EXPECT_EQ(CyclesUntilEmpty(40), 31);
  EXPECT_EQ(SamplesOf(::GetCurrentProcessId()), 31u);
}

TEST_F(ProcessesTest, LoadThresholdIsTwentyPercentSummedOverKernelAndUser) {
  // 10 % kernel + 10 % user = 20: busy. 19 % kernel alone: quiet.
  Follow(1, [](int read) {
    ScriptedCounters c;
    c.kernelMs = 100u * read;
    c.userMs = 100u * read;
    return c;
  });
  Follow(2, KernelGrowth(190));
  for (int cycle = 1; cycle <= 12; ++cycle) Cycle();
  ASSERT_EQ(processes.Count(), 1u) << "the 19 % process goes at its twelfth sample, the 20 % one stays";
  EXPECT_EQ(processes.List().front().name, L"C:\\boot\\p1.exe");
  EXPECT_EQ(CyclesUntilEmpty(40), 19) << "the busy one still leaves at its 31st sample";
}

TEST_F(ProcessesTest, DeltasThatAreNegativeOrLargerThanTheElapsedTimeCountZero) {
  Follow(1, KernelGrowth(1001));   // more CPU than wall time: 0, not 100 %
  Follow(2, KernelGrowth(-500));   // a counter going back: 0, not a huge unsigned load
  Follow(3, KernelGrowth(1000));   // exactly the elapsed time: 100 %
  for (int cycle = 1; cycle <= 12; ++cycle) Cycle();
  ASSERT_EQ(processes.Count(), 1u) << "both bad-delta processes count as quiet and go at their twelfth sample";
  EXPECT_EQ(processes.List().front().name, L"C:\\boot\\p3.exe");
}

TEST_F(ProcessesTest, ATickCountThatDoesNotAdvanceIsNoMeasurement) {
  Follow(1, KernelGrowth(0));
  for (int cycle = 0; cycle < 40; ++cycle) processes.Update();  // no time passes
  // Never quiet (no measurement), so only the 30-sample rule ends it.
  EXPECT_EQ(processes.Count(), 0u);
  EXPECT_EQ(SamplesOf(::GetCurrentProcessId()), 31u);
}

TEST_F(ProcessesTest, AProcessWhoseCountersCannotBeReadIsDroppedWithoutASample) {
  Follow(1, KernelGrowth(0));
  counters.ioFails = true;
  Cycle();
  EXPECT_EQ(processes.Count(), 0u);
  EXPECT_EQ(SamplesOf(::GetCurrentProcessId()), 0u);
}

TEST_F(ProcessesTest, SamplesCarryTheTickAndTheCounters) {
  Follow(1, [](int) {
    ScriptedCounters c;
    c.kernelMs = 1234;
    c.userMs = 56;
    c.read = 0x1'0000'0010ull;  // only the low 32 bits are kept
    c.write = 20;
    c.other = 30;
    return c;
  });
  clock.tick = 5000;
  processes.Update();
  std::vector<Sample> samples;
  data.ForEachProcess([&](const ProcessSamples& p) { samples = p.samples; });
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].time, 5000);
  EXPECT_EQ(samples[0].cpuKernelTime, 1234);
  EXPECT_EQ(samples[0].cpuUserTime, 56);
  EXPECT_EQ(samples[0].bytesRead, 0x10);
  EXPECT_EQ(samples[0].bytesWritten, 20);
  EXPECT_EQ(samples[0].bytesOther, 30);
  EXPECT_EQ(data.GreatestSampleTime(), 5000u);
}

TEST_F(ProcessesTest, RemFindsTheFirstRecordOfThePidOnly) {
  Follow(1, KernelGrowth(0));
  Follow(2, KernelGrowth(0));
  ProcessEvent unknown{0, kNoSuchPid, L"x"};
  EXPECT_FALSE(processes.Rem(unknown)) << "a stop for an untracked pid changes nothing";
  EXPECT_EQ(processes.Count(), 2u);

  ProcessEvent stop{0, ::GetCurrentProcessId(), L""};
  EXPECT_TRUE(processes.Rem(stop));
  ASSERT_EQ(processes.Count(), 1u) << "a pid listed twice is removed one record at a time";
  EXPECT_EQ(processes.List().front().name, L"C:\\boot\\p2.exe");
  EXPECT_TRUE(processes.Rem(stop));
  EXPECT_FALSE(processes.Rem(stop));
}

TEST_F(ProcessesTest, AddOfAProcessThatCannotBeOpenedAddsNothing) {
  EXPECT_FALSE(processes.Add(ProcessEvent{1, kNoSuchPid, L"gone.exe"}));
  EXPECT_EQ(processes.Count(), 0u);
  EXPECT_TRUE(data.Empty());
}

TEST(ProcessesAddByPid, ANullHandleIsAddedAndDroppedAtTheNextUpdate) {
  BootTimeData data;
  BootTimeMonitor::Processes processes(&data);  // the real counters: a null handle fails
  EXPECT_TRUE(processes.Add(kNoSuchPid));
  ASSERT_EQ(processes.Count(), 1u);
  EXPECT_EQ(processes.List().front().handle, nullptr);
  EXPECT_EQ(processes.List().front().ppid, 0u);
  EXPECT_TRUE(processes.List().front().name.empty());
  processes.Update();
  EXPECT_EQ(processes.Count(), 0u);
}

TEST(ProcessesAddByPid, ARunningProcessGetsItsImagePathAsName) {
  BootTimeData data;
  BootTimeMonitor::Processes processes(&data);
  EXPECT_TRUE(processes.Add(static_cast<std::uint32_t>(::GetCurrentProcessId())));
  ASSERT_EQ(processes.Count(), 1u);
  EXPECT_NE(processes.List().front().name.find(L"boottime_test"), std::wstring::npos)
      << "name was: " << std::string(processes.List().front().name.begin(), processes.List().front().name.end());
  processes.Update();
  EXPECT_EQ(processes.Count(), 1u) << "the real counters of a live process can be read";
}

TEST(ProcessesMonitorQueues, EventsQueuedOnAnyThreadAreAppliedInOrder) {
  FakeClock clock;
  FakeCounters counters(&clock);
  BootTimeData data;
  BootTimeMonitor::Processes processes(&data, clock, counters);
  BootTimeMonitor::ProcessesMonitor monitor(nullptr);
  EXPECT_FALSE(monitor.Start()) << "no host context";

  const std::uint64_t self = ::GetCurrentProcessId();
  monitor.OnProcessStarted(ProcessEvent{1, self, L"a"});
  monitor.OnProcessStarted(ProcessEvent{1, kNoSuchPid, L"gone"});
  monitor.OnProcessStarted(ProcessEvent{1, self, L"b"});
  monitor.OnProcessStopped(ProcessEvent{0, self, L""});
  monitor.ApplyEvents(processes);
  ASSERT_EQ(processes.Count(), 1u) << "starts first, then stops: one of the two records of self is left";
  EXPECT_EQ(processes.List().front().name, L"b");

  monitor.ApplyEvents(processes);
  EXPECT_EQ(processes.Count(), 1u) << "the queues were taken whole";
}

}  // namespace
}  // namespace boottime
