// The logon tracker: which session notifications become logons and logoffs, the pending
// logon retried at console connect, nesting, and observer registration; driven through a
// stand-in "sessionchange" plug-in and the host's real event queue.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "common/unique_handle.h"
#include "event_queue.h"
#include "lumera/interface_ids.h"
#include "support/captured_log.h"
#include "support/fake_host.h"
#include "support/plugin_stub.h"
#include "support/test_thread.h"
#include "users/user_logon.h"

namespace {

constexpr DWORD kDeadlineMs = 10000;

// Scripted answers of WTSQuerySessionInformationW per session and class: a text, or a
// failure with a last error.
struct Answer {
  bool ok = true;
  std::wstring text;
  DWORD error = 0;
};
std::map<std::pair<DWORD, WTS_INFO_CLASS>, Answer> g_answers;
std::mutex g_answersLock;
int g_outstandingBuffers = 0;

BOOL WINAPI ScriptedQuery(HANDLE, DWORD session, WTS_INFO_CLASS what, LPWSTR* buffer, DWORD* bytes) {
  std::lock_guard hold(g_answersLock);
  const Answer answer = g_answers[{session, what}];
  if (!answer.ok) {
    ::SetLastError(answer.error);
    return FALSE;
  }
  *buffer = new wchar_t[answer.text.size() + 1];
  std::wmemcpy(*buffer, answer.text.c_str(), answer.text.size() + 1);
  *bytes = static_cast<DWORD>((answer.text.size() + 1) * sizeof(wchar_t));
  ++g_outstandingBuffers;
  return TRUE;
}

void WINAPI ScriptedFree(PVOID memory) {
  std::lock_guard hold(g_answersLock);
  --g_outstandingBuffers;
  delete[] static_cast<wchar_t*>(memory);
}

void Script(DWORD session, const wchar_t* user, const wchar_t* domain) {
  std::lock_guard hold(g_answersLock);
  g_answers[{session, WTSUserName}] = user != nullptr ? Answer{true, user, 0} : Answer{false, L"", ERROR_ACCESS_DENIED};
  g_answers[{session, WTSDomainName}] =
      domain != nullptr ? Answer{true, domain, 0} : Answer{false, L"", ERROR_NOT_SUPPORTED};
}

class FakeSessionChange final : public testsupport::PluginStub<ISessionChangePlugin> {
 public:
  std::uint32_t RegisterEventsHandler(ISessionChangeEvents* handler) override {
    handlers.push_back(handler);
    return 0;
  }
  std::uint32_t UnregisterEventsHandler(ISessionChangeEvents* handler) override {
    const auto it = std::find(handlers.begin(), handlers.end(), handler);
    if (it == handlers.end()) return ERROR_NOT_FOUND;
    handlers.erase(it);
    return 0;
  }
  std::uint32_t Notify(std::uint32_t time, std::uint32_t event, DWORD session) {
    WTSSESSION_NOTIFICATION notification{sizeof notification, session};
    return handlers.front()->OnSessionChange(time, event, &notification);
  }
  std::vector<ISessionChangeEvents*> handlers;
};

// A host offering "sessionchange" and a real event queue.
struct FakeHost final : testsupport::FakeHost {
  FakeHost() {
    queue = &events;
    Offer(L"sessionchange", lumera::ids::SessionChangePlugin, static_cast<ISessionChangePlugin*>(&plugin));
  }
  FakeSessionChange plugin;
  host::EventQueue events;
};

class RecordingObserver final : public IUserLogonObserver {
 public:
  void OnLogon(std::uint32_t time, const wchar_t* user) override { Add(L"on", time, user); }
  void OnLogoff(std::uint32_t time, const wchar_t* user) override { Add(L"off", time, user); }
  using Call = std::tuple<std::wstring, std::uint32_t, std::wstring>;
  std::vector<Call> WaitFor(std::size_t n) { return calls_.WaitFor(n, kDeadlineMs); }

 private:
  void Add(const wchar_t* kind, std::uint32_t time, const wchar_t* user) { calls_.Add(Call(kind, time, user)); }
  testsupport::Records<Call> calls_;
};

class UserLogonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_answers.clear();
    g_outstandingBuffers = 0;
    ASSERT_EQ(tracker.Init(&host), 1);
    ASSERT_TRUE(tracker.Start());
    ASSERT_EQ(tracker.RegisterObserver(&observer), 0u);
  }
  void TearDown() override {
    tracker.Stop();
    tracker.Uninit();
    EXPECT_EQ(g_outstandingBuffers, 0) << "every query buffer is freed";
  }

  testsupport::CapturedLog log;
  FakeHost host;
  CUserLogon tracker{CUserLogon::SessionInfoApi{&ScriptedQuery, &ScriptedFree}};
  CUserLogon::ScopedOverride override{tracker};
  RecordingObserver observer;
};

using Call = RecordingObserver::Call;

TEST_F(UserLogonTest, OnlyConsoleConnectLogonAndLogoffAreQueued) {
  Script(3, L"ann", L"CORP");
  for (std::uint32_t event : {2u, 3u, 4u, 7u, 8u, 9u, 0u, 0xFFFFFFFFu}) {
    EXPECT_EQ(host.plugin.Notify(100, event, 3), 0u) << event;
  }
  EXPECT_EQ(host.plugin.Notify(101, 1, 3), 0u) << "console connect without a pending logon";
  EXPECT_EQ(host.plugin.handlers.front()->OnSessionChange(102, 5, nullptr), 0u) << "no notification: dropped";
  EXPECT_EQ(host.plugin.Notify(103, 5, 3), 0u);
  EXPECT_EQ(host.plugin.Notify(104, 6, 3), 0u);
  EXPECT_EQ(observer.WaitFor(2),
            (std::vector<Call>{{L"on", 103, L"CORP\\ann"}, {L"off", 104, L"CORP\\ann"}}));
  EXPECT_EQ(tracker.UserName(), L"CORP\\ann") << "the name stays stored at logoff";
  EXPECT_EQ(log.count(L"time=103 event=5"), 1u);
}

TEST_F(UserLogonTest, ALogonWithoutANameIsReportedAtTheNextConsoleConnect) {
  // Each step reads its own session, so that the answers are fixed before the first
  // notification is processed on the serial execution.
  Script(10, L"", L"CORP");
  Script(11, nullptr, nullptr);
  Script(12, L"bob", L"CORP");
  Script(13, nullptr, nullptr);
  Script(14, L"bob", nullptr);
  host.plugin.Notify(200, 5, 10);  // an empty name: pending
  host.plugin.Notify(201, 1, 11);  // retried, still unreadable: not pending any more
  host.plugin.Notify(202, 1, 12);  // nothing pending
  host.plugin.Notify(203, 5, 12);
  host.plugin.Notify(204, 5, 13);  // the query fails with an error: pending again
  host.plugin.Notify(205, 1, 14);  // the retry reads a name but no domain
  host.plugin.Notify(206, 6, 14);
  EXPECT_EQ(observer.WaitFor(3), (std::vector<Call>{{L"on", 203, L"CORP\\bob"}, {L"on", 205, L"bob"},
                                                    {L"off", 206, L"bob"}}));
  EXPECT_FALSE(tracker.LogonPending());
  EXPECT_TRUE(log.contains(L"WTSQuerySessionInformation WTSUserName null or empty"));
  EXPECT_TRUE(log.contains(L"WTSQuerySessionInformation WTSUserName failed 0x5"));
  EXPECT_TRUE(log.contains(L"WTSQuerySessionInformation WTSUserName failed 0x32")) << "the domain, in the same words";
}

TEST_F(UserLogonTest, StartAndStopNestAndObserversRegisterOnce) {
  EXPECT_TRUE(tracker.Start());
  EXPECT_EQ(host.gets, 1);
  EXPECT_EQ(host.plugin.handlers.size(), 1u) << "a second Start registers nothing";
  tracker.Stop();
  EXPECT_EQ(host.plugin.handlers.size(), 1u) << "only the last Stop undoes Start";
  EXPECT_EQ(host.releases, 0);

  EXPECT_EQ(tracker.RegisterObserver(&observer), 183u) << "the observer is already registered";
}

TEST(UserLogonStart, EachMissingHostPartIsLoggedAndUndone) {
  testsupport::CapturedLog log;
  CUserLogon* global = &CUserLogon::Instance();
  {
    CUserLogon tracker;
    CUserLogon::ScopedOverride override(tracker);
    EXPECT_EQ(tracker.Init(nullptr), 0);
    EXPECT_FALSE(tracker.Start());
    EXPECT_TRUE(log.contains(L"ServMain NULL"));

    FakeHost host;
    host.withManager = false;
    EXPECT_EQ(tracker.Init(&host), 1);
    EXPECT_FALSE(tracker.Start());
    EXPECT_TRUE(log.contains(L"Component Manager is null!"));

    host.withManager = true;
    host.withheld = {L"sessionchange"};
    EXPECT_FALSE(tracker.Start());
    EXPECT_TRUE(log.contains(L"Error getting plugin: sessionchange"));

    host.withheld.clear();
    host.queue = nullptr;
    EXPECT_FALSE(tracker.Start());
    EXPECT_TRUE(log.contains(L"EventQueue createSerialExecution failed 0x6"));
    EXPECT_EQ(host.gets, host.releases) << "the plug-in is given back";
    EXPECT_TRUE(host.plugin.handlers.empty());

    host.queue = &host.events;
    EXPECT_TRUE(tracker.Start()) << "a failed Start leaves the count where it was";
    tracker.Stop();
    tracker.Uninit();
    EXPECT_GE(log.count(L"failed"), 4u);
  }
  EXPECT_EQ(&CUserLogon::Instance(), global) << "the override restores the process-wide tracker";
}

}  // namespace
