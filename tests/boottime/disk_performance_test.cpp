// The disk measurement: waiting for idle processors in virtual time, then averaging two
// answers of "LoadUsage".
#include <gtest/gtest.h>

#include <vector>

#include "boottime/boot_time_disk_performance.h"
#include "fakes.h"

namespace boottime {
namespace {

using testing::FakeClock;
using testing::FakeCounters;

class FakeLoadUsage final : public ILoadUsage {
 public:
  void* GetInterface(const GUID&) override { return this; }
  std::uint32_t Init(IServMain*) override { return 0; }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }
  std::uint32_t GetCurrentUsage(std::uint32_t, double*) override { return ERROR_NOT_SUPPORTED; }
  std::uint32_t GetUsage(std::uint32_t kind, lumera::LoadUsageFigures* figures) override {
    kinds.push_back(kind);
    askedAtTick.push_back(clock->tick);
    if (code != 0) return code;
    const std::size_t i = std::min(answers.size() - 1, kinds.size() - 1);
    *figures = answers[i];
    return 0;
  }

  const FakeClock* clock = nullptr;
  std::uint32_t code = 0;
  std::vector<lumera::LoadUsageFigures> answers{{10, 50, 20, 60, 60}, {20, 70, 40, 60, 60}};
  std::vector<std::uint32_t> kinds;
  std::vector<std::uint32_t> askedAtTick;
};

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
  DiskSpeed speed;
  EXPECT_EQ(disk.GetResult(&speed), kStatusAvailable);
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

TEST_F(DiskPerformanceTest, FailingSystemTimesKeepTheOldValuesUntilTheTimeLimit) {
  counters.systemTimesFail = true;
  disk.Start(stop);
  EXPECT_EQ(clock.waits, 11);
  EXPECT_EQ(disk.GetResult(nullptr), kStatusAvailable);
}

TEST_F(DiskPerformanceTest, AStopRequestDuringAnyWaitGivesStatusTwoWithoutAsking) {
  for (int stopAt : {1, 4}) {
    FakeClock stopClock;
    stopClock.stopAtWait = stopAt;
    FakeCounters idle(&stopClock);
    FakeLoadUsage plugin;
    plugin.clock = &stopClock;
    BootTimeDiskPerformance stopped(stopClock, idle);
    stopped.SetLoadUsage(&plugin);
    stopped.Start(stop);
    EXPECT_EQ(stopClock.waits, stopAt);
    EXPECT_TRUE(plugin.kinds.empty());
    EXPECT_EQ(stopped.GetResult(nullptr), kStatusNoResults) << "stop at wait " << stopAt;
  }
}

TEST_F(DiskPerformanceTest, WithoutThePlugInOnlyTheStatusIsSet) {
  disk.SetLoadUsage(nullptr);
  disk.Start(stop);
  EXPECT_EQ(clock.waits, 0);
  EXPECT_EQ(disk.GetResult(nullptr), kStatusNoResults);
}

TEST_F(DiskPerformanceTest, APlugInThatHasNoDiskFiguresGivesNoResultInsteadOfZeros) {
  IdlePercent(100);
  loadUsage.code = ERROR_NOT_SUPPORTED;
  disk.Start(stop);
  DiskSpeed speed;
  EXPECT_EQ(disk.GetResult(&speed), kStatusNoResults);
  EXPECT_EQ(speed.average, 0);
}

TEST_F(DiskPerformanceTest, StatusIsNotYetKnownBeforeAnyMeasurement) {
  EXPECT_EQ(disk.GetResult(nullptr), kStatusNotYetKnown);
}

}  // namespace
}  // namespace boottime
