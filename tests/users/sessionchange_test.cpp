// The host's "sessionchange" under the development switch for the console session, and the logon
// tracker fed by it and kyusers.dll through the host's real event queue.
#include <gtest/gtest.h>

#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

#include "common/unique_handle.h"
#include "component_manager.h"
#include "lumera/interface_ids.h"
#include "plugins/sessionchange.h"
#include "support/captured_log.h"
#include "support/plugin_stub.h"
#include "support/scratch_folder.h"
#include "support/staged_console.h"
#include "support/test_thread.h"
#include "users/ky_users.h"
#include "users/user_logon.h"

namespace {

using testsupport::StagedConsole;

class Recorder final : public ISessionChangeEvents, public IUserLogonObserver {
 public:
  std::uint32_t OnSessionChange(std::uint32_t, std::uint32_t event, WTSSESSION_NOTIFICATION* n) override {
    Add(L"event " + std::to_wstring(event) + (n != nullptr && n->cbSize == sizeof *n ? L"" : L" bad"));
    return 0;
  }
  void OnLogon(std::uint32_t, const wchar_t* user) override { Add(std::wstring(L"logon ") + user); }
  void OnLogoff(std::uint32_t, const wchar_t* user) override { Add(std::wstring(L"logoff ") + user); }
  std::vector<std::wstring> WaitFor(std::size_t n) { return records_.WaitFor(n); }

 private:
  void Add(std::wstring record) { records_.Add(std::move(record)); }
  testsupport::Records<std::wstring> records_;
};

// The host with its "sessionchange" plug-in and a recorder for that plug-in's events.
struct HostWithSessionChange {
  host::HostConfig config;
  host::ComponentManager host{config};
  ISessionChangePlugin* plugin =
      testsupport::GetPlugin<ISessionChangePlugin>(host, L"sessionchange", lumera::ids::SessionChangePlugin);
  Recorder recorder;
};

TEST(SessionChange, TheStagedConsoleLogsOnAndOffForTheHost) {
  StagedConsole console;
  console.Set(0);
  HostWithSessionChange h;
  auto& [config, host, plugin, recorder] = h;
  ASSERT_NE(plugin, nullptr);
  ASSERT_EQ(plugin->RegisterEventsHandler(&recorder), 0u);
  EXPECT_EQ(plugin->RegisterEventsHandler(&recorder), 183u);

  console.Set(1);
  EXPECT_EQ(recorder.WaitFor(1), std::vector<std::wstring>{L"event 5"});
  console.Set(0);
  EXPECT_EQ(recorder.WaitFor(2), (std::vector<std::wstring>{L"event 5", L"event 6"}));

  EXPECT_EQ(plugin->UnregisterEventsHandler(&recorder), 0u);
  EXPECT_EQ(plugin->UnregisterEventsHandler(&recorder), 1168u);
  EXPECT_EQ(host.ReleasePlugin(L"sessionchange"), 0u);
  host.Shutdown();
}

TEST(SessionChange, AsAServiceItDeliversWhatTheControlHandlerRelaysAndNothingElse) {
  StagedConsole console;  // named but never set: nothing staged to follow
  host::SetSessionChangesFromService(true);
  HostWithSessionChange h;
  auto& [config, host, plugin, recorder] = h;
  ASSERT_NE(plugin, nullptr);
  ASSERT_EQ(plugin->RegisterEventsHandler(&recorder), 0u);
  WTSSESSION_NOTIFICATION notification{sizeof notification, 1};
  host::RelaySessionChange(WTS_SESSION_LOCK, &notification);
  host::RelaySessionChange(WTS_SESSION_LOGOFF, &notification);
  EXPECT_EQ(recorder.WaitFor(2), (std::vector<std::wstring>{L"event 7", L"event 6"}));
  (void)host.ReleasePlugin(L"sessionchange");
  host.Shutdown();
  host::SetSessionChangesFromService(false);
  host::RelaySessionChange(WTS_SESSION_LOGON, &notification);  // no plug-in any more: dropped
}

TEST(SessionChange, TheLogonTrackerReportsTheStagedLogonWithTheUsersName) {
  testsupport::CapturedLog log;
  StagedConsole console;
  console.Set(0);
  ky::unique_module users(::LoadLibraryW((testsupport::ExeFolder() + L"kyusers.dll").c_str()));
  ASSERT_TRUE(users);
  ASSERT_TRUE(velora::utils::CKYUsers::Instance().ReloadDll());
  host::HostConfig config;
  host::ComponentManager host(config);
  {
    CUserLogon tracker;
    CUserLogon::ScopedOverride override(tracker);
    ASSERT_EQ(tracker.Init(&host), 1);
    EXPECT_TRUE(tracker.UserName().empty()) << "nobody logged on at Init";
    EXPECT_FALSE(CUserLogon::IsUserLogged());
    ASSERT_TRUE(tracker.Start());
    Recorder recorder;
    ASSERT_EQ(tracker.RegisterObserver(&recorder), 0u);
    console.Set(1);
    const std::vector<std::wstring> logon = recorder.WaitFor(1);
    ASSERT_EQ(logon.size(), 1u);
    EXPECT_EQ(logon[0].rfind(L"logon ", 0), 0u) << logon[0];
    EXPECT_GT(logon[0].size(), 6u) << "with the name read from the session";
    EXPECT_TRUE(CUserLogon::IsUserLogged());
    console.Set(0);
    const std::vector<std::wstring> both = recorder.WaitFor(2);
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[1], L"logoff " + logon[0].substr(6)) << "the name stored at logon";
    tracker.Stop();
    tracker.Uninit();
  }
  EXPECT_EQ(host.OutstandingCount(L"sessionchange"), 0);
  host.Shutdown();
  velora::utils::CKYUsers::Instance().UnloadDll();
}

}  // namespace
