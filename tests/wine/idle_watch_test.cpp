// When the writer judges the machine idle after logon.
#include <gtest/gtest.h>

#include "idle_watch.h"

namespace winestandins {
namespace {

// Cumulative times after `ms` of which `busyShare` was busy, on one processor.
struct Machine {
  std::uint64_t idle = 0, kernel = 0, user = 0;
  std::uint32_t tick = 1000;
  std::optional<std::uint32_t> Run(IdleWatch& watch, std::uint32_t ms, double busyShare) {
    const auto busy = static_cast<std::uint64_t>(ms * busyShare * 10000);
    const std::uint64_t total = static_cast<std::uint64_t>(ms) * 10000;
    idle += total - busy;
    kernel += total - busy;  // kernel time includes idle time, as GetSystemTimes gives it
    user += busy;
    tick += ms;
    return watch.Feed(tick, idle, kernel, user);
  }
};

TEST(IdleWatch, TheWindowStartsAfterTheLastBusySecondAndMustLastWhole) {
  IdleWatch watch;
  Machine machine;
  EXPECT_FALSE(machine.Run(watch, 0, 0));
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(machine.Run(watch, 1000, 0.9));
  const std::uint32_t busyEnded = machine.tick;
  for (int i = 0; i < 9; ++i) EXPECT_FALSE(machine.Run(watch, 1000, 0.1));
  EXPECT_FALSE(machine.Run(watch, 1000, 0.25)) << "75 % idle breaks the window";
  const std::uint32_t idleAgain = machine.tick;
  for (int i = 0; i < 9; ++i) EXPECT_FALSE(machine.Run(watch, 1000, 0.15));
  const auto ended = machine.Run(watch, 1000, 0.15);
  ASSERT_TRUE(ended);
  EXPECT_EQ(*ended, idleAgain);
  EXPECT_GT(*ended, busyEnded);
  EXPECT_EQ(machine.Run(watch, 1000, 1.0), ended) << "the decision stays";
}

TEST(IdleWatch, NoProcessorTimeAtAllCountsAsIdleAndCountersGoingBackAsNone) {
  IdleWatch watch(0.8, 2000);
  EXPECT_FALSE(watch.Feed(100, 50, 50, 0));
  EXPECT_FALSE(watch.Feed(1100, 50, 50, 0));
  EXPECT_EQ(watch.Feed(2100, 10, 10, 0), std::optional<std::uint32_t>(100));
}

}  // namespace
}  // namespace winestandins
