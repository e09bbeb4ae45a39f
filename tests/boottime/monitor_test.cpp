// The boot time monitor in virtual time: when it monitors at all, when it gives up, when
// an empty process list ends it, the busy walk over the samples, the boot time formula, and
// the last boot time file.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "boottime/boot_time_data.h"
#include "boottime/boot_time_monitor.h"
#include "boottime/processes.h"
#include "boottime/processes_monitor.h"
#include "common/unique_handle.h"
#include "fakes.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

using testing::Logged;
using testing::FakeClock;

// Every process reads as busy (50 % of one processor), or every read fails so that each
// process is dropped at its first sample and the list runs empty.
class UniformCounters final : public IProcessCountersSource {
 public:
  UniformCounters(const FakeClock& clock, bool busy) : clock_(clock), busy_(busy) {}
  bool GetProcessTimes(HANDLE, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user) override {
    if (!busy_) {
      ::SetLastError(ERROR_ACCESS_DENIED);
      return false;
    }
    *creation = *exit = testing::ToFileTime(0);
    *kernel = testing::ToFileTime(std::uint64_t{clock_.tick} / 2 * 10000);
    *user = testing::ToFileTime(0);
    return true;
  }
  bool GetProcessIoCounters(HANDLE, IO_COUNTERS* counters) override {
    *counters = IO_COUNTERS{};
    return busy_;
  }
  bool GetSystemTimes(FILETIME*, FILETIME*, FILETIME*) override { return false; }
  std::uint32_t NumberOfProcessors() override { return 1; }

 private:
  const FakeClock& clock_;
  bool busy_;
};

class MonitorTest : public ::testing::Test {
 protected:
  void Make(bool busy) {
    counters = std::make_unique<UniformCounters>(clock, busy);
    monitor = std::make_unique<BootTimeMonitor>(clock, *counters);
    ASSERT_EQ(monitor->Init(nullptr, &data), 0u);
  }
  std::uint32_t Run() {
    monitor->Start(stop.get());
    return monitor->Result(&bootTime);
  }
  void FeedOwnProcessEachCycle() {
    clock.onWait = [this] {
      if (clock.tick % 100000 == 0) log.clear();  // two hours of cycles would fill the capture
      if (clock.tick % 25000 != 0) return;        // each record is followed for at most 30 samples
      ProcessEvent event;
      event.pid = ::GetCurrentProcessId();
      event.name = L"self";
      monitor->ProcessEvents()->OnProcessStarted(event);
    };
  }

  testsupport::CapturedLog log;
  FakeClock clock;
  BootTimeData data;
  std::unique_ptr<UniformCounters> counters;
  std::unique_ptr<BootTimeMonitor> monitor;
  ky::unique_handle stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::uint32_t bootTime = 0;
};

TEST_F(MonitorTest, OnlyAHostStartedWithinTheFirstMinuteMonitors) {
  Make(true);
  clock.tick = 60001;
  EXPECT_EQ(Run(), 2u);
  EXPECT_EQ(clock.waits, 0) << "a late start never enters the loop";
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Start", L"start too late for boot time"));

  clock.tick = 60000;
  clock.stopAtWait = 1;
  EXPECT_EQ(Run(), 2u) << "stopped at the first wait";
  EXPECT_EQ(clock.waits, 1) << "60000 ms still monitors";
  EXPECT_GT(monitor->ProcessList()->Count(), 0u) << "the running processes were enumerated";
}

TEST_F(MonitorTest, TheTwoHourLimitEndsMonitoringOfBusyProcessesWithoutATime) {
  Make(true);
  FeedOwnProcessEachCycle();
  clock.tick = 1000;
  EXPECT_EQ(Run(), 2u);
  EXPECT_EQ(clock.tick, 7201000u) << "the first check above 7200000 ms ends it";
  EXPECT_GT(monitor->ProcessList()->Count(), 0u) << "processes were still followed";
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::IsBootFinished",
                     L"Threshhold since system started reached; Stopping monitor; tick count=7201000 threshold=7200000"));
}

TEST_F(MonitorTest, WithAUserLoggedOnAnEmptyListEndsMonitoringOnlyAfterMoreThanAMinute) {
  struct Case {
    std::uint32_t logonTime;
    bool logoff;
    const wchar_t* stopLine;
  };
  // Cycles end at 6000, 7000, ...: a logon at 5000 reaches exactly 60000 ms at 65000 and goes
  // on; one at 4999 is 60001 ms past at 65000 and stops there. A logoff clears the logon
  // time, so the minute counts from tick 0.
  for (const Case& c : {Case{5000, false, L"now=66000, logon time=5000, system time=0"},
                        Case{4999, false, L"now=65000, logon time=4999, system time=0"},
                        Case{5000, true, L"now=61000, logon time=0, system time=0"}}) {
    log.clear();
    clock = FakeClock{};
    Make(false);
    clock.tick = 5000;
    monitor->LogonObserver()->OnLogon(c.logonTime, L"DOMAIN\\user");
    if (c.logoff) monitor->LogonObserver()->OnLogoff(5000, L"DOMAIN\\user");
    EXPECT_EQ(Run(), 0u) << c.logonTime;
    EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Start", c.stopLine)) << c.logonTime;
    EXPECT_EQ(bootTime, 0u) << "no process was busy and no time system mark was taken";
  }
}

TEST_F(MonitorTest, ProcessesStartedAMinuteOrMorePastLogonAreNotFollowed) {
  Make(true);
  clock.tick = 1000;
  monitor->LogonObserver()->OnLogon(1000, L"user");
  clock.stopAtWait = 62;  // the notifications below are applied at 60000 and 61000
  clock.onWait = [this] {
    const std::uint32_t sinceLogon = clock.tick - 1000;
    if (sinceLogon != 59000 && sinceLogon != 60000) return;
    ProcessEvent event;
    event.pid = ::GetCurrentProcessId();
    event.name = std::to_wstring(sinceLogon);
    monitor->ProcessEvents()->OnProcessStarted(event);
  };
  EXPECT_EQ(Run(), 2u);
  std::vector<std::wstring> names;
  for (const TrackedProcess& process : monitor->ProcessList()->List()) names.push_back(process.name);
  EXPECT_NE(std::find(names.begin(), names.end(), L"59000"), names.end()) << "started 59 s past logon";
  EXPECT_EQ(std::find(names.begin(), names.end(), L"60000"), names.end()) << "started 60 s past logon";
}

TEST_F(MonitorTest, WithNobodyLoggedOnTheTimeSystemMarkIsTakenOnceAndSetsTheBootTimeAtLogon) {
  Make(false);
  ASSERT_FALSE(monitor->LogonObserver()->Logged()) << "the users library is not beside the test";
  clock.tick = 20000;
  clock.onWait = [this] {
    if (clock.tick == 30000) monitor->LogonObserver()->OnLogon(30000, L"user");
  };
  EXPECT_EQ(Run(), 0u);
  EXPECT_EQ(monitor->TimeSystemMark(), 21000u) << "the first empty list with nobody logged on";
  EXPECT_EQ(log.count(L"time system "), 1u) << "the mark is taken once and kept";
  EXPECT_EQ(clock.tick, 91000u) << "60001 ms and more after the logon";
  EXPECT_EQ(bootTime, 21000u) << "M = 0 below L: the greater of M and S";
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::Start", L"boot time = 21000"));
}

TEST(MonitorBootTime, FollowsTheFormulaOfBusyEndTimeSystemMarkAndLogonTime) {
  EXPECT_EQ(BootTimeMonitor::ComputeBootTime(40000, 0, 25000), 40000u) << "no mark: M";
  EXPECT_EQ(BootTimeMonitor::ComputeBootTime(40000, 10000, 25000), 25000u) << "M >= L: S + (M - L)";
  EXPECT_EQ(BootTimeMonitor::ComputeBootTime(25000, 10000, 25000), 10000u) << "M == L: S";
  EXPECT_EQ(BootTimeMonitor::ComputeBootTime(20000, 10000, 25000), 20000u) << "M < L: the greater, M";
  EXPECT_EQ(BootTimeMonitor::ComputeBootTime(5000, 10000, 25000), 10000u) << "M < L: the greater, S";
}

Sample At(std::int32_t time, std::int32_t kernel, std::int32_t user) { return Sample{time, kernel, user, 0, 0, 0}; }

TEST(MonitorAnalyzeSamples, TheLatestSampleEndingATwentyPercentStepIsTheBusyEnd) {
  BootTimeData data;
  BootTimeMonitor monitor;
  ASSERT_EQ(monitor.Init(nullptr, &data), 0u);
  data.AddProcess(0, 1, L"idle");  // 19 % per step: never busy
  for (std::int32_t t = 1; t <= 5; ++t) data.AddSample(1, At(t * 1000, t * 100, t * 90));
  EXPECT_EQ(monitor.AnalyzeSamples(), 0u) << "no process reaches 20 %";

  data.AddProcess(0, 2, L"busy until 3000");  // exactly 20 % up to 3000, then quiet
  for (auto s : {At(1000, 0, 0), At(2000, 100, 100), At(3000, 200, 200), At(4000, 200, 200), At(5000, 200, 200)}) {
    data.AddSample(2, s);
  }
  data.AddProcess(0, 3, L"kernel delta beyond the interval");  // counts 0, never busy
  for (auto s : {At(1000, 0, 0), At(6000, 9000, 0)}) data.AddSample(3, s);
  EXPECT_EQ(monitor.AnalyzeSamples(), 3000u);

  data.AddProcess(0, 4, L"busy last");
  for (auto s : {At(1000, 0, 0), At(1500, 0, 500)}) data.AddSample(4, s);
  EXPECT_EQ(monitor.AnalyzeSamples(), 3000u) << "a busy end earlier than the maximum changes nothing";
  data.AddSample(4, At(3500, 300, 600));
  EXPECT_EQ(monitor.AnalyzeSamples(), 3500u);

  data.AddProcess(0, 5, L"clock went back");  // quiet, but its time does not advance at the end
  for (auto s : {At(1000, 0, 0), At(4000, 0, 0), At(3800, 0, 0)}) data.AddSample(5, s);
  EXPECT_EQ(monitor.AnalyzeSamples(), 3800u) << "a step back in time ends the walk as a busy step does";
}

class LastBootTimeFileTest : public MonitorTest {
 protected:
  void SetUp() override { Make(false); }
  void Write(const std::string& text) { testsupport::WriteFileBytes(folder.file(BootTimeMonitor::kFileName), text); }
  testsupport::ScratchFolder folder;
};

TEST_F(LastBootTimeFileTest, LoadsOnlyADecimalBootTimeAndLeavesTheTimeAloneOtherwise) {
  Write(R"({"bootTime":"41250","systemStartTimestamp":"1"})");
  monitor->LoadLastBootTimeFromDisk(folder.path());
  EXPECT_EQ(monitor->Result(&bootTime), 0u);
  EXPECT_EQ(bootTime, 41250u);
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::LoadLastBootTimeFromDisk", L"Loaded boot time 41250"));

  struct Case {
    const char* text;  // null: no file
    const wchar_t* line;
  };
  for (const Case& c : {Case{nullptr, L"Can't find last boot information data"},
                        Case{"{}", L"Invalid last boot json file"},
                        Case{R"({"bootTime":"12x"})", L"Invalid last boot json file"},
                        Case{R"({"bootTime":12})", L"Invalid last boot json file"},
                        Case{R"({"bootTime":"99999999999"})", L"Invalid last boot json file"},
                        Case{"{\"bootTime\":", nullptr}}) {
    log.clear();
    std::filesystem::remove(std::filesystem::path(folder.file(BootTimeMonitor::kFileName)));
    if (c.text != nullptr) Write(c.text);
    monitor->LoadLastBootTimeFromDisk(folder.path());
    EXPECT_EQ(monitor->Result(&bootTime), 2u) << (c.text ? c.text : "no file");
    EXPECT_EQ(bootTime, 41250u) << "the boot time is unchanged";
    if (c.line != nullptr) {
      EXPECT_TRUE(Logged(log, L"BootTimeMonitor::LoadLastBootTimeFromDisk", c.line)) << c.text;
    } else {
      EXPECT_TRUE(log.contains(L"Invalid json file format : ")) << "the parser's message";
    }
  }

  Write(R"({"bootTime":"0"})");
  monitor->LoadLastBootTimeFromDisk(folder.path());
  EXPECT_EQ(monitor->Result(&bootTime), 0u) << "0 is a valid boot time";
  EXPECT_EQ(bootTime, 0u);
}

TEST_F(LastBootTimeFileTest, AStoreFollowedByALoadGivesBackTheBootTimeAndTheSystemStart) {
  Write(R"({"bootTime":"-7"})");
  monitor->LoadLastBootTimeFromDisk(folder.path());
  testsupport::ScratchFolder other;
  clock.tick = 1234;
  monitor->StoreBootTimeOnDisk(other.path());
  const std::string text = testsupport::ReadFileBytes(other.file(BootTimeMonitor::kFileName));
  EXPECT_NE(text.find(R"("systemStartTimestamp":"13000000000000")"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("bootTime":"-7")"), std::string::npos) << text;

  BootTimeMonitor fresh(clock, *counters);
  fresh.LoadLastBootTimeFromDisk(other.path());
  EXPECT_EQ(fresh.Result(&bootTime), 0u);
  EXPECT_EQ(bootTime, static_cast<std::uint32_t>(-7));

  monitor->StoreBootTimeOnDisk(other.file(L"missing\\"));
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::StoreBootTimeOnDisk", L"Failed to save boot time data in JSON"));
}

}  // namespace
}  // namespace boottime
