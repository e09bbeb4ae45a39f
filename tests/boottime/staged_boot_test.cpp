// A staged boot: the machine started seconds ago (the test runs in a time namespace), the
// monitor follows real child processes through the host's real "wmiprocessdp", sees the
// staged logon through the host's real "sessionchange", and a stop request ends it at once.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <thread>

#include "boottime/boot_time_data.h"
#include "boottime/boot_time_monitor.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "lumera_dev/console_session.h"
#include "support/captured_log.h"
#include "support/programs.h"
#include "support/scratch_folder.h"
#include "users/ky_users.h"
#include "users/user_logon.h"

namespace boottime {
namespace {

constexpr DWORD kDeadlineMs = 15000;

class Child {
 public:
  explicit Child(const std::wstring& eventName) : done_(::CreateEventW(nullptr, TRUE, FALSE, eventName.c_str())) {
    process_ = testsupport::StartProgram(L"\"" + testsupport::ExeFolder() + L"boottime_child.exe\" " + eventName);
    pid_ = process_ ? ::GetProcessId(process_.get()) : 0;
  }
  ~Child() {
    ::SetEvent(done_.get());
    if (process_) ::WaitForSingleObject(process_.get(), kDeadlineMs);
  }
  std::uint32_t Pid() const { return pid_; }

 private:
  ky::unique_handle done_;
  ky::unique_handle process_;
  std::uint32_t pid_ = 0;
};

// Polls `done` every 50 ms until it holds or the deadline passes.
template <class Done>
bool Eventually(Done done) {
  ky::unique_handle never(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const DWORD start = ::GetTickCount();
  while (!done()) {
    if (::GetTickCount() - start > kDeadlineMs) return false;
    ::WaitForSingleObject(never.get(), 50);
  }
  return true;
}

TEST(StagedBoot, TheMonitorFollowsTheBootUntilAStopRequestEndsItAtOnce) {
  if (::GetTickCount() > BootTimeMonitor::kLateStartMs / 2) {
    GTEST_SKIP() << "the machine started " << ::GetTickCount() << " ms ago: run through staged_boot.sh";
  }
  testsupport::CapturedLog log;
  const std::wstring value = L"ConsoleSession.staged" + std::to_wstring(::GetCurrentProcessId());
  ::SetEnvironmentVariableW(lumera::dev::kValueOverride, value.c_str());
  auto stage = [&](DWORD loggedOn) {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, lumera::dev::kDevelopmentKey, value.c_str(), REG_DWORD, &loggedOn,
                             sizeof loggedOn) == ERROR_SUCCESS;
  };
  ASSERT_TRUE(stage(0));
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

  const std::wstring prefix = L"staged_child_" + std::to_wstring(::GetCurrentProcessId()) + L"_";
  {
    Child first(prefix + L"1");
    Child second(prefix + L"2");
    ASSERT_NE(first.Pid(), 0u);
    auto sampled = [&](std::uint32_t pid) {
      bool found = false;
      data.ForEachProcess([&](const ProcessSamples& p) { found |= p.pid == pid && !p.samples.empty(); });
      return found;
    };
    EXPECT_TRUE(Eventually([&] { return sampled(first.Pid()) && sampled(second.Pid()); }))
        << "the children started during the boot are followed and sampled";
  }

  ASSERT_TRUE(stage(1));
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
  ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, lumera::dev::kDevelopmentKey, value.c_str());
  velora::utils::CKYUsers::Instance().UnloadDll();
}

}  // namespace
}  // namespace boottime
