// The arithmetic behind the "LoadUsage" figures.
#include <gtest/gtest.h>

#include "plugins/loadusage_window.h"

namespace {

TEST(LoadWindow, KeepsTheLastSecondsAndClampsToPercent) {
  host::LoadWindow window(3);
  EXPECT_TRUE(window.Empty());
  EXPECT_EQ(window.Figures().samples, 0u);
  for (double v : {90.0, 10.0, 20.0, 130.0}) window.Add(v);
  const lumera::LoadUsageFigures f = window.Figures();
  EXPECT_EQ(f.samples, 3u) << "the oldest figure left the window";
  EXPECT_DOUBLE_EQ(f.minimum, 10);
  EXPECT_DOUBLE_EQ(f.maximum, 100) << "clamped";
  EXPECT_DOUBLE_EQ(f.average, (10 + 20 + 100) / 3.0);
  EXPECT_EQ(f.windowSeconds, 3u);
  EXPECT_DOUBLE_EQ(window.Latest(), 100);
}

TEST(LoadWindow, BusyShareFromIdleAndTotalTimes) {
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 175, 1000, 1100), 25.0);
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 100, 1000, 1000), 0.0) << "no time passed";
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 300, 1000, 1100), 0.0) << "more idle than time: clamped";
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 50, 1000, 1100), 100.0) << "idle going back counts as none";
}

}  // namespace
