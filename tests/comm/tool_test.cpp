// boottime.exe against a real "boottimepipe" server backed by a fake plug-in.
#include <gtest/gtest.h>

#include <string>

#include "boottime/comm/boottime_comm.h"
#include "component_manager.h"
#include "fake_boottime.h"
#include "support/programs.h"
#include "support/test_thread.h"

namespace {

testsupport::ProgramRun RunTool(const std::wstring& args) { return testsupport::RunBinProgram(L"boottime.exe", args, 20000); }

TEST(BootTimeTool, PrintsAnswersFailuresAndBroadcasts) {
  host::HostConfig config;
  host::ComponentManager manager{config};
  testing_boottime::FakeBootTime fake;
  fake.impacts.push_back({4, 101, L"C:\\Apps\\first \"quoted\".exe", 1, 2, 3, 4, 5});
  manager.RegisterModuleObject(L"boottime", &fake);
  boottime::CBootTimeComm server;
  ASSERT_EQ(server.Init(&manager), 0u);
  ASSERT_EQ(server.Start(), 0u);

  struct Case {
    const wchar_t* args;
    std::uint32_t failWith;  // the plug-in's code for the boot-time and disk queries
    DWORD exitCode;
    const char* output;
  } cases[] = {
      {L"time", 0, 0, "boot time: 31337 ms"},
      {L"impact --pid 101 --name first --json", 0, 0, "first \\\"quoted\\\".exe"},  // JSON strings are escaped
      {L"disk --async", 0, 0, "max 97.25"},
      {L"disk", 2, 1, "2 (no results)"},
      {L"time --async --json", 1, 1, "{\"error\":1,\"meaning\":\"not yet known\"}"},
      {L"impact --pid -3", 0, 2, ""},  // usage errors
      {L"", 0, 2, ""},
  };
  for (const Case& c : cases) {
    fake.bootTimeCode = c.failWith;
    fake.diskCode = c.failWith;
    const auto run = RunTool(c.args);
    EXPECT_EQ(run.exitCode, c.exitCode) << "boottime " << testing::PrintToString(c.args) << "\n" << run.output;
    EXPECT_NE(run.output.find(c.output), std::string::npos) << "boottime " << testing::PrintToString(c.args) << "\n" << run.output;
  }
  EXPECT_EQ(fake.LastKey().pid, 101u);
  EXPECT_EQ(fake.LastKey().name, L"first");

  {
    // Broadcast until the tool has connected and heard one.
    testsupport::Event stop;
    testsupport::TestThread broadcaster([&] {
      do {
        fake.OnDataAnalysed(0);
      } while (!stop.waitFor(100));
    });
    const auto watch = RunTool(L"watch --count 1");
    stop.set();
    EXPECT_EQ(watch.exitCode, 0u) << watch.output;
    EXPECT_NE(watch.output.find("data analysed: status 0"), std::string::npos) << watch.output;
  }
  server.Stop();
  server.UnInit();
  manager.UnregisterModuleObject(L"boottime");
  manager.Shutdown();
}

}  // namespace
