// Under Wine the module's own counter path, with its imports redirected as the development
// host does, follows a real child: its processor time and the bytes it wrote.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "boottime/boot_time_data.h"
#include "boottime/processes.h"
#include "common/unique_handle.h"
#include "lumera_dev/console_session.h"
#include "support/programs.h"
#include "support/scratch_folder.h"
#include "support/test_thread.h"
#include "wine/process_accounting_shims.h"

namespace {

using Processes = boottime::BootTimeMonitor::Processes;
constexpr DWORD kBurnMs = 1500;
constexpr DWORD kWriteKb = 4096;
constexpr DWORD kDeadlineMs = 60000;

struct Child {
  ky::unique_handle process;
  ky::unique_handle ready;
  ky::unique_handle quit;
};

Child StartChild(const std::wstring& file, DWORD burnMs = kBurnMs, DWORD writeKb = kWriteKb) {
  Child child;
  static int started = 0;
  const std::wstring suffix = std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++started);
  const std::wstring readyName = L"wine_accounting_ready_" + suffix;
  const std::wstring quitName = L"wine_accounting_quit_" + suffix;
  child.ready.reset(::CreateEventW(nullptr, TRUE, FALSE, readyName.c_str()));
  child.quit.reset(::CreateEventW(nullptr, TRUE, FALSE, quitName.c_str()));
  child.process = testsupport::StartProgram(L"\"" + testsupport::ExeFolder() + L"wine_workload_child.exe\" " +
                                            std::to_wstring(burnMs) + L" " + std::to_wstring(writeKb) + L" \"" + file +
                                            L"\" " + readyName + L" " + quitName);
  return child;
}

bool WaitReady(const Child& child) {
  const HANDLE waits[] = {child.ready.get(), child.process.get()};
  return ::WaitForMultipleObjects(2, waits, FALSE, kDeadlineMs) == WAIT_OBJECT_0;
}

TEST(ProcessAccounting, TheModulesCountersFollowAChildThatBurnsAndWrites) {
  if (!lumera::dev::RunningUnderWine()) GTEST_SKIP() << "Windows keeps these figures itself";
  ASSERT_EQ(host::wine::InstallProcessAccounting(::GetModuleHandleW(nullptr)), 2);
  testsupport::ScratchFolder scratch;
  Child child = StartChild(scratch.file(L"written.bin"));
  ASSERT_TRUE(child.process);
  ASSERT_TRUE(WaitReady(child));

  ky::unique_handle opened(::OpenProcess(Processes::kAccess, FALSE, ::GetProcessId(child.process.get())));
  ASSERT_TRUE(opened);
  boottime::BootTimeData data;
  Processes processes(&data);
  boottime::ProcessCounters running;
  ASSERT_TRUE(processes.GetProcessCounters(opened.get(), running));

  ::SetEvent(child.quit.get());
  ASSERT_EQ(::WaitForSingleObject(child.process.get(), kDeadlineMs), WAIT_OBJECT_0);
  DWORD burned = 0;
  ASSERT_TRUE(::GetExitCodeProcess(child.process.get(), &burned));
  ASSERT_GE(burned, kBurnMs);

  const double cpu = static_cast<double>(running.kernel) + running.user;
  std::printf("child burned %lu ms, counted %u+%u ms; wrote %lu bytes, counted %u written, %u read\n", burned,
              running.kernel, running.user, kWriteKb * 1024ul, running.write, running.read);
  EXPECT_GE(cpu, burned * 0.75);
  EXPECT_LE(cpu, burned * 1.25);
  EXPECT_GE(running.write, kWriteKb * 1024u);

  // An ended process keeps its last figures, as on Windows.
  boottime::ProcessCounters ended;
  ASSERT_TRUE(processes.GetProcessCounters(opened.get(), ended));
  EXPECT_GE(ended.kernel + ended.user, running.kernel + running.user);
  EXPECT_GE(ended.write, running.write);
}

TEST(ProcessAccounting, TwoInstancesOfOneProgramEachGetTheirOwnFigures) {
  if (!lumera::dev::RunningUnderWine()) GTEST_SKIP() << "Windows keeps these figures itself";
  testsupport::ScratchFolder scratch;
  Child writer = StartChild(scratch.file(L"a.bin"), 100, kWriteKb);
  ASSERT_TRUE(writer.process);
  ASSERT_TRUE(WaitReady(writer));
  Child idle = StartChild(scratch.file(L"b.bin"), 0, 0);
  ASSERT_TRUE(idle.process);
  ASSERT_TRUE(WaitReady(idle));

  IO_COUNTERS written{}, quiet{};
  EXPECT_TRUE(host::wine::AccountedGetProcessIoCounters(writer.process.get(), &written));
  EXPECT_TRUE(host::wine::AccountedGetProcessIoCounters(idle.process.get(), &quiet));
  ::SetEvent(writer.quit.get());
  ::SetEvent(idle.quit.get());
  ::WaitForSingleObject(writer.process.get(), kDeadlineMs);
  ::WaitForSingleObject(idle.process.get(), kDeadlineMs);
  EXPECT_GE(written.WriteTransferCount, kWriteKb * 1024ull);
  EXPECT_LT(quiet.WriteTransferCount, kWriteKb * 1024ull / 4) << "the later instance was given the earlier's figures";
}

TEST(ProcessAccounting, ABadHandleStillFailsAsTheSystemDoes) {
  if (!lumera::dev::RunningUnderWine()) GTEST_SKIP() << "Windows keeps these figures itself";
  FILETIME a{}, b{}, c{}, d{};
  IO_COUNTERS io{};
  ::SetLastError(0);
  EXPECT_FALSE(host::wine::AccountedGetProcessTimes(nullptr, &a, &b, &c, &d));
  EXPECT_NE(::GetLastError(), 0u);
  EXPECT_FALSE(host::wine::AccountedGetProcessIoCounters(nullptr, &io));
}

}  // namespace
