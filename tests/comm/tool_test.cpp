// boottime.exe against a real "boottimepipe" server backed by a fake plug-in.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "boottime/comm/boottime_comm.h"
#include "component_manager.h"
#include "fake_boottime.h"
#include "pipelink_fixture.h"

namespace {

struct ToolRun {
  DWORD exitCode = 0xFFFFFFFF;
  std::string out;
  std::string err;
};

// Drains one pipe on its own thread so a chatty child never blocks on a full pipe.
class Drain {
 public:
  explicit Drain(HANDLE read) : read_(read), thread_([this] {
    char buffer[4096];
    DWORD n = 0;
    while (::ReadFile(read_.get(), buffer, sizeof buffer, &n, nullptr) && n > 0) text_.append(buffer, n);
  }) {}
  std::string Finish() {
    thread_.join();
    return text_;
  }

 private:
  ky::unique_handle read_;
  std::string text_;
  std::thread thread_;
};

// Runs build/bin/boottime.exe; `whileRunning` is called until it ends (at most 20 s).
template <class Fn>
ToolRun RunTool(const std::wstring& args, Fn whileRunning) {
  ToolRun run;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE outRead = nullptr, outWrite = nullptr, errRead = nullptr, errWrite = nullptr;
  if (!::CreatePipe(&outRead, &outWrite, &inherit, 0) || !::CreatePipe(&errRead, &errWrite, &inherit, 0)) return run;
  ky::unique_handle outW(outWrite), errW(errWrite);
  ::SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
  ::SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
  Drain out(outRead), err(errRead);
  const std::wstring exe = testing_pipelink::ExeFolder() + L"..\\boottime.exe";
  std::wstring command = L"\"" + exe + L"\" " + args;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = outWrite;
  startup.hStdError = errWrite;
  PROCESS_INFORMATION process{};
  const BOOL started = ::CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                                        nullptr, &startup, &process);
  outW.reset();
  errW.reset();
  if (started) {
    ky::unique_handle proc(process.hProcess), thread(process.hThread);
    const ULONGLONG deadline = ::GetTickCount64() + 20000;
    while (::WaitForSingleObject(proc.get(), 100) == WAIT_TIMEOUT && ::GetTickCount64() < deadline) whileRunning();
    if (::WaitForSingleObject(proc.get(), 0) != WAIT_OBJECT_0) ::TerminateProcess(proc.get(), 99);
    ::WaitForSingleObject(proc.get(), 5000);
    ::GetExitCodeProcess(proc.get(), &run.exitCode);
  }
  run.out = out.Finish();
  run.err = err.Finish();
  return run;
}

ToolRun RunTool(const std::wstring& args) {
  return RunTool(args, [] {});
}

class BootTimeTool : public ::testing::Test {
 protected:
  void SetUp() override {
    fake.impacts.push_back({4, 101, L"C:\\Apps\\first \"quoted\".exe", 1, 2, 3, 4, 5});
    manager.RegisterModuleObject(L"boottime", &fake);
    ASSERT_EQ(server.Init(&manager), 0u);
    ASSERT_EQ(server.Start(), 0u);
  }
  void TearDown() override {
    server.Stop();
    server.UnInit();
    manager.UnregisterModuleObject(L"boottime");
    manager.Shutdown();
  }
  host::HostConfig config;
  host::ComponentManager manager{config};
  testing_boottime::FakeBootTime fake;
  boottime::CBootTimeComm server;
};

TEST_F(BootTimeTool, PrintsAnswersAsTextAndJson) {
  ToolRun time = RunTool(L"time");
  EXPECT_EQ(time.exitCode, 0u) << time.err;
  EXPECT_NE(time.out.find("boot time: 31337 ms"), std::string::npos) << time.out;

  ToolRun impact = RunTool(L"impact --pid 101 --name first --json");
  EXPECT_EQ(impact.exitCode, 0u) << impact.err;
  EXPECT_NE(impact.out.find("\"pid\":101"), std::string::npos) << impact.out;
  EXPECT_NE(impact.out.find("first \\\"quoted\\\".exe"), std::string::npos) << "JSON strings are escaped: " << impact.out;
  EXPECT_EQ(fake.LastKey().pid, 101u);
  EXPECT_EQ(fake.LastKey().name, L"first");

  ToolRun disk = RunTool(L"disk --async");
  EXPECT_EQ(disk.exitCode, 0u) << disk.err;
  EXPECT_NE(disk.out.find("max 97.25"), std::string::npos) << disk.out;
}

TEST_F(BootTimeTool, FailuresPrintTheCodeAndItsMeaningAndExitNonZero) {
  fake.diskCode = 2;
  ToolRun disk = RunTool(L"disk");
  EXPECT_EQ(disk.exitCode, 1u);
  EXPECT_NE(disk.err.find("2 (no results)"), std::string::npos) << disk.err;

  fake.bootTimeCode = 1;
  ToolRun time = RunTool(L"time --async --json");
  EXPECT_EQ(time.exitCode, 1u);
  EXPECT_NE(time.err.find("1 (not yet known)"), std::string::npos) << time.err;
  EXPECT_NE(time.out.find("{\"error\":1,\"meaning\":\"not yet known\"}"), std::string::npos) << time.out;

  EXPECT_EQ(RunTool(L"impact --pid -3").exitCode, 2u) << "a bad number is a usage error";
  EXPECT_EQ(RunTool(L"").exitCode, 2u);
}

TEST_F(BootTimeTool, WatchPrintsEachDataAnalysedBroadcast) {
  // Broadcast until the tool has connected and heard one.
  ToolRun watch = RunTool(L"watch --count 1", [&] { fake.OnDataAnalysed(0); });
  EXPECT_EQ(watch.exitCode, 0u) << watch.err;
  EXPECT_NE(watch.out.find("data analysed: status 0"), std::string::npos) << watch.out;
}

}  // namespace
