// Telling apart the Linux processes of two instances of one program by their start times.
#include <gtest/gtest.h>

#include <vector>

#include "wine/linux_pid_map.h"

namespace host::wine {
namespace {

TEST(LinuxPidMap, TheLatestStartedByTheCreationStampIsTaken) {
  // Under load the first instance's Linux process started 154 ms before its creation stamp
  // (measured), and the next instance may start sooner after that stamp.
  const std::vector<LinuxStart> twoInstances = {{700, 10'000 - 154}, {702, 10'000 + 120}, {650, 2'000}};
  EXPECT_EQ(PickByStart(twoInstances, 10'000), 700u);
  EXPECT_EQ(PickByStart(twoInstances, 10'000 + 120 + 40), 702u);
  // Both clocks count in 10 ms steps: a start a step after the stamp is still the process's own.
  EXPECT_EQ(PickByStart({{700, 4'000}, {702, 5'000 + 10}}, 5'000), 702u);
}

TEST(LinuxPidMap, WithoutAStartBeforeTheStampTheNearestIsTaken) {
  EXPECT_EQ(PickByStart({{800, 9'000}, {801, 9'500}}, 8'800), 800u);
  EXPECT_EQ(PickByStart({}, 8'800), 0u);
}

}  // namespace
}  // namespace host::wine
