// A staged boot: the machine started seconds ago (the test runs in a time namespace), the
// monitor follows real child processes through the host's real "wmiprocessdp", sees the
// staged logon through the host's real "sessionchange", and a stop request ends it at once.
#include <gtest/gtest.h>

#include <windows.h>

#include <functional>
#include <thread>

#include "boottime/boot_time_data.h"
#include "boottime/boot_time_monitor.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "boottime_child.h"
#include "support/captured_log.h"
#include "support/staged_console.h"
#include "support/test_thread.h"
#include "users/ky_users.h"
#include "users/user_logon.h"

namespace boottime {
namespace {

constexpr DWORD kDeadlineMs = 15000;

using testing_boottime::Child;

bool Eventually(const std::function<bool()>& done) { return testsupport::WaitUntil(done, kDeadlineMs); }

TEST(StagedBoot, TheMonitorFollowsTheBootUntilAStopRequestEndsItAtOnce) {
  if (::GetTickCount() > BootTimeMonitor::kLateStartMs / 2) {
    GTEST_SKIP() << "the machine started " << ::GetTickCount() << " ms ago: run through staged_boot.sh";
  }
  testsupport::CapturedLog log;
  testsupport::StagedConsole console(L"ConsoleSession.staged");
  ASSERT_NO_FATAL_FAILURE(console.Set(0));
  ASSERT_TRUE(velora::utils::CKYUsers::Instance().ReloadDll()) << "kyusers.dll beside the test";

  host::HostConfig config;
  host::ComponentManager host(config);
  CUserLogon tracker;
  CUserLogon::ScopedOverride override(tracker);
  ASSERT_EQ(tracker.Init(&host), 1);
  ASSERT_TRUE(tracker.Start());

  BootTimeData data;
  BootTimeMonitor monitor;
  ASSERT_EQ(monitor.Init(&host, &data), 0u);
  EXPECT_FALSE(monitor.LogonObserver()->Logged()) << "nobody is logged on when the boot starts";
  ky::unique_handle stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::thread run([&] { monitor.Start(stop.get()); });
  // Processes started before the first sampling pass may fall between the enumeration and
  // the first look of "wmiprocessdp"; the boot's own processes come later.
  ASSERT_TRUE(Eventually([&] { return data.GreatestSampleTime() > 0; })) << "the monitor's loop did not start";

  {
    Child first;
    Child second;
    ASSERT_NE(first.Pid(), 0u);
    auto sampled = [&](std::uint32_t pid) {
      bool found = false;
      data.ForEachProcess([&](const ProcessSamples& p) { found |= p.pid == pid && !p.samples.empty(); });
      return found;
    };
    EXPECT_TRUE(Eventually([&] { return sampled(first.Pid()) && sampled(second.Pid()); }))
        << "the children started during the boot are followed and sampled";
  }

  ASSERT_NO_FATAL_FAILURE(console.Set(1));
  EXPECT_TRUE(Eventually([&] { return monitor.LogonObserver()->Logged(); })) << "the staged logon reaches the monitor";
  EXPECT_GT(monitor.LogonObserver()->LogonTime(), 0u);
  EXPECT_LT(monitor.LogonObserver()->LogonTime(), BootTimeMonitor::kLateStartMs);

  const DWORD stopAt = ::GetTickCount();
  ::SetEvent(stop.get());
  run.join();
  const DWORD took = ::GetTickCount() - stopAt;
  EXPECT_LT(took, 1000u) << "Start ended " << took << " ms after the stop request";
  EXPECT_EQ(monitor.Result(), 2u) << "a stopped run has no boot time";

  monitor.UnInit();
  tracker.Stop();
  tracker.Uninit();
  host.Shutdown();
  velora::utils::CKYUsers::Instance().UnloadDll();
}

}  // namespace
}  // namespace boottime
