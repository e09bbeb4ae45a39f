// Following processes: the drop rules, the load arithmetic, and adding and removing records.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "boottime/process_utils.h"
#include "boottime/processes.h"
#include "boottime/processes_monitor.h"
#include "common/log.h"
#include "fakes.h"
#include "support/failing_allocation.h"

namespace boottime {
namespace {

using testing::FakeClock;
using testing::FakeCounters;
using testing::Logged;
using testing::ScriptedCounters;

// A pid that no process has: pids are multiples of 4.
constexpr std::uint32_t kNoSuchPid = 0x7FFFFFF1;

// CPU time growing by `kernelPerRead` (+ `userPerRead`) milliseconds per sample (one a second).
FakeCounters::Script Growth(std::int64_t kernelPerRead, std::int64_t userPerRead = 0) {
  return [=](int read) {
    ScriptedCounters c;
    c.kernelMs = static_cast<std::uint32_t>(100000 + kernelPerRead * read);
    c.userMs = static_cast<std::uint32_t>(userPerRead * read);
    return c;
  };
}

class ProcessesTest : public ::testing::Test {
 protected:
  // Follows this very process under the name p<n>.exe (so the handle is real) with scripted counters.
  void Follow(int n, FakeCounters::Script script) {
    ASSERT_TRUE(processes.Add(ProcessEvent{7, ::GetCurrentProcessId(), L"p" + std::to_wstring(n) + L".exe"}));
    counters.scripts[processes.List().back().handle] = std::move(script);
  }
  void Cycles(int n) {
    for (int i = 0; i < n; ++i) {
      clock.tick += 1000;
      processes.Update();
    }
  }
  std::vector<Sample> Samples() {
    std::vector<Sample> samples;
    data.ForEachProcess([&](const ProcessSamples& p) { samples = p.samples; });
    return samples;
  }
  // Cycles until the list is empty (at most 40); returns the cycle that emptied it.
  int CyclesUntilEmpty() {
    for (int cycle = 1; cycle <= 40; ++cycle) {
      Cycles(1);
      if (processes.Count() == 0) return cycle;
    }
    return -1;
  }

  testsupport::CapturedLog log;
  FakeClock clock;
  FakeCounters counters{&clock};
  BootTimeData data;
  BootTimeMonitor::Processes processes{&data, clock, counters};
};

TEST_F(ProcessesTest, QuietProcessIsDroppedAtItsTwelfthSampleAndAllTwelveAreStored) {
  Follow(1, Growth(0));
  EXPECT_EQ(CyclesUntilEmpty(), 12);
  EXPECT_EQ(Samples().size(), 12u) << "the sample of the dropping pass is stored too";
}

TEST_F(ProcessesTest, BusyProcessIsDroppedAtItsThirtyFirstSample) {
  Follow(1, Growth(500));  // 50 % of one processor
  EXPECT_EQ(CyclesUntilEmpty(), 31);
}

TEST_F(ProcessesTest, LoadIsKernelPlusUserAndBadDeltasCountZero) {
  Follow(1, Growth(100, 100));  // 10 % + 10 % = 20 %: busy
  Follow(2, Growth(190));       // 19 %: quiet
  Follow(3, Growth(1001));      // more CPU than wall time: 0, not 100 %
  Follow(4, Growth(-500));      // a counter going back: 0, not a huge unsigned load
  Follow(5, Growth(1000));      // exactly the elapsed time: busy
  Cycles(12);
  ASSERT_EQ(processes.Count(), 2u);
  EXPECT_EQ(processes.List().front().name, L"p1.exe");
  EXPECT_EQ(processes.List().back().name, L"p5.exe");
}

TEST_F(ProcessesTest, ATickCountThatDoesNotAdvanceIsNoMeasurement) {
  Follow(1, Growth(0));
  for (int cycle = 0; cycle < 40; ++cycle) processes.Update();  // no time passes
  EXPECT_EQ(processes.Count(), 0u);
  EXPECT_EQ(Samples().size(), 31u) << "never quiet, so only the 30-sample rule ends it";
}

TEST_F(ProcessesTest, SamplesCarryTheTickAndTheCountersAndUnreadableOnesDropTheProcess) {
  Follow(1, [](int) { return ScriptedCounters{1234, 56, 0x1'0000'0010ull, 20, 30}; });
  clock.tick = 5000;
  processes.Update();
  const std::vector<Sample> samples = Samples();
  ASSERT_EQ(samples.size(), 1u);
  const Sample& s = samples[0];
  EXPECT_EQ(std::tie(s.time, s.cpuKernelTime, s.cpuUserTime, s.bytesRead, s.bytesWritten, s.bytesOther),
            std::make_tuple(5000, 1234, 56, 0x10, 20, 30)) << "of the read counter only the low 32 bits are kept";

  counters.ioFails = true;
  Cycles(1);
  EXPECT_EQ(processes.Count(), 0u);
  EXPECT_EQ(Samples().size(), 1u) << "no sample for the failed read";
}

TEST_F(ProcessesTest, RemFindsTheFirstRecordOfThePidOnly) {
  EXPECT_FALSE(processes.Add(ProcessEvent{1, kNoSuchPid, L"gone.exe"})) << "a process that cannot be opened";
  Follow(1, Growth(0));
  Follow(2, Growth(0));
  EXPECT_FALSE(processes.Rem(ProcessEvent{0, kNoSuchPid, L"x"})) << "a stop for an untracked pid changes nothing";
  EXPECT_EQ(processes.Count(), 2u);

  const ProcessEvent stop{0, ::GetCurrentProcessId(), L""};
  EXPECT_TRUE(processes.Rem(stop));
  ASSERT_EQ(processes.Count(), 1u) << "a pid listed twice is removed one record at a time";
  EXPECT_EQ(processes.List().front().name, L"p2.exe");
  EXPECT_TRUE(processes.Rem(stop));
  EXPECT_FALSE(processes.Rem(stop));
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Processes::Add", L"Add p1.exe"));
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Processes::Rem", L"REM x"));
}

TEST(ProcessesAddByPid, ANullHandleIsAddedAndDroppedAtTheNextUpdateALiveProcessStays) {
  testsupport::CapturedLog log;
  BootTimeData data;
  BootTimeMonitor::Processes processes(&data);  // the real counters: a null handle fails
  EXPECT_TRUE(processes.Add(kNoSuchPid));
  ASSERT_EQ(processes.Count(), 1u);
  EXPECT_EQ(processes.List().front().handle, nullptr);
  EXPECT_TRUE(processes.List().front().name.empty());
  processes.Update();
  EXPECT_EQ(processes.Count(), 0u);
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Processes::Add", L"ADD "));
  EXPECT_TRUE(Logged(log, L"utils::GetProcessName", L"QueryFullProcessImageName failed with error code : 6"));
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Processes::GetProcessCounters", L"GetProcessTimes failed 0x6"));

  const std::vector<std::uint32_t> pids = utils::GetAllProcessesPids();
  EXPECT_TRUE(std::is_sorted(pids.begin(), pids.end()));
  EXPECT_NE(std::find(pids.begin(), pids.end(), ::GetCurrentProcessId()), pids.end());
  EXPECT_TRUE(processes.Add(static_cast<std::uint32_t>(::GetCurrentProcessId())));
  ASSERT_EQ(processes.Count(), 1u);
  EXPECT_NE(processes.List().front().name.find(L"boottime_test"), std::wstring::npos) << "the image path is the name";
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
  monitor.ApplyEvents(processes, true, L"test");
  ASSERT_EQ(processes.Count(), 1u) << "starts first, then stops: one of the two records of self is left";
  EXPECT_EQ(processes.List().front().name, L"b");
  monitor.ApplyEvents(processes, true, L"test");
  EXPECT_EQ(processes.Count(), 1u) << "the queues were taken whole";
}

TEST(ProcessesMonitorQueues, AHostWithoutTheProcessPlugInLeavesTheMonitorWithoutNotifications) {
  struct NoPlugins final : IServMain, IPlgComponentManager {
    const wchar_t* GetHostName() override { return L"test"; }
    IPlgComponentManager* GetComponentManager() override { return this; }
    IEventQueue* GetEventQueue() override { return nullptr; }
    std::uint32_t GetPlugin(const wchar_t*, const GUID&, void** out) override {
      *out = nullptr;
      return ERROR_NOT_FOUND;
    }
    std::uint32_t ReleasePlugin(const wchar_t*) override { return ERROR_NOT_FOUND; }
  } host;
  testsupport::CapturedLog log;
  BootTimeMonitor::ProcessesMonitor monitor(&host);
  EXPECT_FALSE(monitor.Start());
  EXPECT_TRUE(Logged(log, L"WmiProcessDP::Init", L"GetPlugin wmiprocessdp failed"));
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::ProcessesMonitor::Start", L"IProcessDp Init failed"));
}

TEST(ProcessesMonitorQueues, AnAllocationFailureOnTheNotifyingThreadLosesOnlyThatEventWithALogLine) {
  logging::LogRef keep;  // the log adapter is made before allocations fail
  testsupport::CapturedLog log;
  BootTimeMonitor::ProcessesMonitor monitor(nullptr);
  ProcessEvent event;
  event.pid = 7;
  event.name = L"C:\\Windows\\a-name-long-enough-to-need-its-own-buffer.exe";
  {
    testsupport::FailAllocations fail;
    monitor.OnProcessStarted(event);
    monitor.OnProcessStopped(event);
  }
  monitor.OnProcessStarted(event);
  std::vector<ProcessEvent> started, stopped;
  monitor.TakeEvents(started, stopped);
  EXPECT_EQ(started.size(), 1u) << "the next notification is queued as usual";
  EXPECT_TRUE(stopped.empty());
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::ProcessesMonitor::OnProcessStarted", L"exception: out of memory"));
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::ProcessesMonitor::OnProcessStopped", L"exception: out of memory"));
}

}  // namespace
}  // namespace boottime
