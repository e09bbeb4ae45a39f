// The readers of the Linux accounting files take whatever text the files hold.
#include <gtest/gtest.h>

#include <string>

#include "wine/linux_proc.h"

namespace host::wine {
namespace {

TEST(LinuxProc, StatTakesTheFieldsAfterTheLastParenthesis) {
  LinuxStat stat;
  // A command name with spaces and parentheses of its own.
  ASSERT_TRUE(ParseStat("4242 (a) b (c)) S 1 4242 4242 0 -1 4194560 100 0 0 0 153 47 0 0 20 0 3 0 98765 1 2 3", stat));
  EXPECT_EQ(stat.userTicks, 153u);
  EXPECT_EQ(stat.systemTicks, 47u);
  EXPECT_EQ(stat.startTicks, 98765u);
  EXPECT_FALSE(ParseStat("4242 (x) S 1 2 3", stat));
  EXPECT_FALSE(ParseStat("no parenthesis at all", stat));
  EXPECT_FALSE(ParseStat("1 (x) S 1 1 1 0 -1 0 0 0 0 0 1x 2 0 0 20 0 1 0 5", stat));
  EXPECT_FALSE(ParseStat("", stat));
}

TEST(LinuxProc, IoNeedsBothCharacterCounts) {
  LinuxIo io;
  ASSERT_TRUE(ParseIo("rchar: 10\nwchar: 4194397\nsyscr: 3\nsyscw: 7\nread_bytes: 0\nwrite_bytes: 4194304\n", io));
  EXPECT_EQ(io.rchar, 10u);
  EXPECT_EQ(io.wchar, 4194397u);
  EXPECT_EQ(io.syscw, 7u);
  EXPECT_EQ(io.writeBytes, 4194304u);
  EXPECT_TRUE(io.hasStorage);
  ASSERT_TRUE(ParseIo("rchar: 1\nwchar: 2\n", io));
  EXPECT_FALSE(io.hasStorage) << "a kernel without task I/O accounting";
  EXPECT_FALSE(ParseIo("rchar: 10\n", io));
  EXPECT_FALSE(ParseIo("rchar: -1\nwchar: x\n", io));
  EXPECT_FALSE(ParseIo(std::string(100000, ':'), io));
}

TEST(LinuxProc, UptimeInMilliseconds) {
  EXPECT_EQ(ParseUptimeMs("4737.11 1229.82\n"), 4737110u);
  EXPECT_EQ(ParseUptimeMs("12.5 1.0"), 12500u);
  EXPECT_EQ(ParseUptimeMs("7"), 7000u);
  EXPECT_EQ(ParseUptimeMs("x.1 2"), 0u);
  EXPECT_EQ(ParseUptimeMs(""), 0u);
}

TEST(LinuxProc, DiskStatsSkipsMalformedLines) {
  const auto disks = ParseDiskStats(
      " 253 0 vda 1 2 3 4 5 6 7 8 9 223480 11\n"
      "garbage\n"
      " 7 0 loop0 0 0 0 0 0 0 0 0 0 x 0\n"
      " 253 1 vda1 1 2 3 4 5 6 7 8 9 100 11 0 0 0 0");
  ASSERT_EQ(disks.size(), 2u);
  EXPECT_EQ(disks[0].name, "vda");
  EXPECT_EQ(disks[0].ioTicksMs, 223480u);
  EXPECT_EQ(disks[1].name, "vda1");
}

TEST(LinuxProc, ACommandLineMatchesItsImageOnlyAsAWholeWord) {
  const std::string cmdline("C:\\windows\\system32\\Services.exe\0--x\0", 36);
  EXPECT_TRUE(CommandLineStartsWith(cmdline, "c:\\windows\\system32\\services.exe"));
  EXPECT_FALSE(CommandLineStartsWith(cmdline, "c:\\windows\\system32\\services.ex"));
  EXPECT_TRUE(CommandLineStartsWith("Z:\\w\\a.exe arg", "z:\\w\\a.exe"));
  EXPECT_FALSE(CommandLineStartsWith("Z:\\w\\a.exe", ""));
  EXPECT_FALSE(CommandLineStartsWith("short", "much longer than the line"));
}

}  // namespace
}  // namespace host::wine
