// The disk measurement: waiting for idle processors in virtual time, then averaging two
// answers of "LoadUsage".
#include <gtest/gtest.h>

#include "boottime/boot_time_disk_performance.h"
#include "fakes.h"

namespace boottime {
namespace {

using testing::FakeClock;
using testing::FakeCounters;
using testing::FakeLoadUsage;

class DiskPerformanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clock.tick = 50000;
    loadUsage.clock = &clock;
    disk.SetLoadUsage(&loadUsage);
  }
  // Idle time of all processors growing by `percent` of each elapsed millisecond.
  void IdlePercent(std::uint64_t percent) {
    counters.idleAt = [this, percent](std::uint32_t tick) {
      return std::uint64_t{tick} * 10000 * counters.processors * percent / 100;
    };
  }

  FakeClock clock;
  FakeCounters counters{&clock};
  FakeLoadUsage loadUsage;
  BootTimeDiskPerformance disk{clock, counters};
  HANDLE stop = reinterpret_cast<HANDLE>(0x1);  // the fake clock never waits on it
};

TEST_F(DiskPerformanceTest, IdleAfterTheFirstSecondMeasuresAfterOneWaitAndAveragesTwoAnswers) {
  EXPECT_EQ(disk.GetResult(nullptr), kStatusNotYetKnown);
  IdlePercent(81);
  disk.Start(stop);
  EXPECT_EQ(clock.waits, 1);
  ASSERT_EQ(loadUsage.kinds.size(), 2u) << "asked twice, one call right after the other";
  EXPECT_EQ(loadUsage.kinds[0], lumera::kLoadKindDisk);
  EXPECT_EQ(loadUsage.askedAtTick[0], loadUsage.askedAtTick[1]);
  DiskSpeed speed;
  EXPECT_EQ(disk.GetResult(&speed), kStatusAvailable);
  EXPECT_DOUBLE_EQ(speed.minimum, 15);
  EXPECT_DOUBLE_EQ(speed.maximum, 60);
  EXPECT_DOUBLE_EQ(speed.average, 30);
  EXPECT_EQ(disk.LogForm(), L"min_hddUsage=15 max_hddUsage=60 average_hddUsage=30 ");
}

TEST_F(DiskPerformanceTest, AMachineThatNeverIdlesIsMeasuredOnceTenSecondsHavePassed) {
  IdlePercent(80);  // exactly 0.8 is not idle enough
  disk.Start(stop);
  EXPECT_EQ(clock.waits, 11) << "checks at 1..11 s; 10 s is not yet more than 10000 ms";
  ASSERT_EQ(loadUsage.askedAtTick.size(), 2u);
  EXPECT_EQ(loadUsage.askedAtTick[0], 50000u + 11000u);
  EXPECT_EQ(disk.GetResult(nullptr), kStatusAvailable);
}

TEST_F(DiskPerformanceTest, IdlenessIsJudgedPerSecondNotSinceTheStart) {
  // Busy for five seconds, then idle: the sixth check sees an idle second.
  counters.idleAt = [this](std::uint32_t tick) -> std::uint64_t {
    const std::uint32_t idleFrom = 50000 + 5000;
    return tick <= idleFrom ? 0 : std::uint64_t{tick - idleFrom} * 10000 * counters.processors;
  };
  disk.Start(stop);
  EXPECT_EQ(clock.waits, 6);
}

TEST_F(DiskPerformanceTest, FailingSystemTimesAreLoggedAndTheMeasurementWaitsOutTheTimeLimit) {
  testsupport::CapturedLog log;
  counters.systemTimesFail = true;
  loadUsage.answers = {{1.5, 9.25, 4, 60, 60}};
  disk.Start(stop);
  EXPECT_EQ(clock.waits, 11) << "the old idle values are kept, so never idle";
  EXPECT_EQ(disk.GetResult(nullptr), kStatusAvailable);
  const std::wstring measure = L"BootTimeDiskPerformance::MeasureDiskPerformance";
  EXPECT_TRUE(testing::Logged(log, measure, L"GetSystemTimes failed with error code 5"));
  EXPECT_TRUE(
      testing::Logged(log, measure, L"Disk speed determined [min, max, avg]=[1.500000, 9.250000, 4.000000]; status = 0"));
}

TEST_F(DiskPerformanceTest, AStopRequestDuringAnyWaitGivesStatusTwoWithoutAsking) {
  for (int stopAt : {1, 4}) {
    FakeClock stopClock;
    stopClock.stopAtWait = stopAt;
    FakeCounters idle(&stopClock);
    FakeLoadUsage plugin;
    BootTimeDiskPerformance stopped(stopClock, idle);
    stopped.SetLoadUsage(&plugin);
    stopped.Start(stop);
    EXPECT_EQ(stopClock.waits, stopAt);
    EXPECT_TRUE(plugin.kinds.empty());
    EXPECT_EQ(stopped.GetResult(nullptr), kStatusNoResults) << "stop at wait " << stopAt;
  }
}

// Virtual time around the system clock's own wait, so that what a real wait returns reaches
// the measurement loop.
class RealWaitClock final : public IClock {
 public:
  std::uint32_t TickCount() override { return tick; }
  std::uint64_t WallClock() override { return 0; }
  DWORD WaitForStop(HANDLE stopEvent, DWORD milliseconds) override {
    ++waits;
    tick += milliseconds;
    return SystemClock::Instance().WaitForStop(stopEvent, 0);
  }
  std::uint32_t tick = 50000;
  int waits = 0;
};

TEST_F(DiskPerformanceTest, AFailedWaitOnTheStopEventEndsTheMeasurementAtOnce) {
  RealWaitClock failing;
  FakeCounters neverIdle;
  FakeLoadUsage plugin;
  BootTimeDiskPerformance measured(failing, neverIdle);
  measured.SetLoadUsage(&plugin);
  measured.Start(nullptr);  // the stop event whose creation failed
  EXPECT_EQ(failing.waits, 1) << "a wait that fails means stop, it must not spin the loop";
  EXPECT_TRUE(plugin.kinds.empty());
  EXPECT_EQ(measured.GetResult(nullptr), kStatusNoResults);
}

TEST_F(DiskPerformanceTest, FailedAnswersCountAsZerosAndNoPlugInGivesNoResult) {
  IdlePercent(100);
  testsupport::CapturedLog log;
  loadUsage.code = ERROR_NOT_SUPPORTED;
  disk.Start(stop);
  EXPECT_EQ(loadUsage.kinds.size(), 2u) << "both calls are made";
  DiskSpeed speed{1, 2, 3};
  EXPECT_EQ(disk.GetResult(&speed), kStatusAvailable);
  EXPECT_EQ(speed.average, 0);
  EXPECT_EQ(log.count(L"LoadUsage GetUsage failed 0x32"), 2u);
  EXPECT_TRUE(testing::Logged(log, L"BootTimeDiskPerformance::MeasureDiskPerformance",
                              L"Disk speed determined [min, max, avg]=[0.000000, 0.000000, 0.000000]; status = 0"));

  const int waits = clock.waits;
  BootTimeDiskPerformance without(clock, counters);
  without.Start(stop);
  EXPECT_EQ(clock.waits, waits) << "without the plug-in nothing is waited for";
  EXPECT_EQ(without.GetResult(nullptr), kStatusNoResults);
}

}  // namespace
}  // namespace boottime
