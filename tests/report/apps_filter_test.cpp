// AppAgentDP.dll's store and transactions, and the apps filter built from it.
#include <gtest/gtest.h>

#include <windows.h>

#include "agent_fixture.h"
#include "startup/app_agent_dp_dll.h"
#include "startup/apps_filter.h"
#include "support/captured_log.h"
#include "support/test_thread.h"

namespace {

using startup::CAppsFilter;
using testing_report::AgentStore;
using testing_report::FakeProductInfo;

using testsupport::ReadFileBytes;

TEST(AppAgentDP, ValuesAreWrittenAtTheEndOfATransactionThatHoldsTheAppsLock) {
  AgentStore agent;
  startup::AppAgentDPDll dll;
  ASSERT_TRUE(dll.Init());
  EXPECT_EQ(dll.init(L"relative\\agent"), static_cast<std::uint32_t>(ERROR_BAD_PATHNAME));
  EXPECT_EQ(dll.init((agent.Path() + L"missing").c_str()), static_cast<std::uint32_t>(ERROR_PATH_NOT_FOUND));
  ASSERT_EQ(dll.init(agent.Path().c_str()), 0u);

  appagentdp::Transaction* first = nullptr;
  ASSERT_EQ(dll.beginTransaction(L"Suite", &first), 0u);
  ASSERT_EQ(dll.set(first, L"app_paths", L"[\"C:\\\\Suite\"]"), 0u);
  const wchar_t* value = nullptr;
  ASSERT_EQ(dll.get(first, L"app_paths", &value), 0u);
  EXPECT_STREQ(value, L"[\"C:\\\\Suite\"]") << "the transaction sees its own write";
  EXPECT_EQ(ReadFileBytes(agent.Path() + L"Suite\\app_paths"), "") << "nothing reaches the value before the end";
  EXPECT_EQ(dll.get(first, L"..\\escape", &value), static_cast<std::uint32_t>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(dll.get(first, L"absent", &value), static_cast<std::uint32_t>(ERROR_FILE_NOT_FOUND));

  // A second transaction on the same app waits for the first to end.
  std::uint32_t secondResult = 1;
  appagentdp::Transaction* second = nullptr;
  testsupport::TestThread waiter([&] { secondResult = dll.beginTransaction(L"Suite", &second); });
  EXPECT_FALSE(waiter.join(testsupport::kShortWait)) << "still waiting for the lock";
  ASSERT_EQ(dll.endTransaction(first), 0u);
  ASSERT_TRUE(waiter.join(testsupport::kLongWait));
  ASSERT_EQ(secondResult, 0u);
  EXPECT_EQ(ReadFileBytes(agent.Path() + L"Suite\\app_paths"), "[\"C:\\\\Suite\"]");
  ASSERT_EQ(dll.endTransaction(second), 0u);

  agent.AddApp(L"Other");
  appagentdp::IAppNameList* apps = nullptr;
  ASSERT_EQ(dll.getApps(&apps), 0u);
  ASSERT_EQ(apps->Count(), 2u);
  EXPECT_STREQ(apps->Name(0), L"Other");
  EXPECT_STREQ(apps->Name(1), L"Suite");
  EXPECT_EQ(apps->Name(2), nullptr);
  apps->Release();
  EXPECT_EQ(dll.remApp(L"Suite"), 0u);
  EXPECT_EQ(::GetFileAttributesW((agent.Path() + L"Suite").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(AppsFilter, InstallationFoldersOfTheAgentsAppsFilterByPrefixInAnyAsciiCase) {
  AgentStore agent;
  agent.SetAppPaths(L"Suite", "[\"C:\\\\Program Files\\\\X\", 7, \"D:\\\\\xC3\x84pp\"]");
  agent.SetAppPaths(L"Broken", "{\"path\":\"C:\\\\Y\"}");
  agent.SetAppPaths(L"Garbled", "[\"C:\\\\Z\"");
  agent.AddApp(L"Bare");
  FakeProductInfo info(agent.Path());
  testsupport::CapturedLog log;
  CAppsFilter filter([&] { return &info; });
  filter.Init();

  EXPECT_TRUE(filter.Matches(L"C:\\PROGRAM FILES\\x\\tray.exe"));
  EXPECT_TRUE(filter.Matches(L"c:\\program files\\x"));
  EXPECT_FALSE(filter.Matches(L"C:\\Program Files\\Y\\tray.exe"));
  EXPECT_FALSE(filter.Matches(L"C:\\Program Files"));
  EXPECT_TRUE(filter.Matches(L"D:\\\x00C4pp\\a.exe"));
  EXPECT_FALSE(filter.Matches(L"D:\\\x00E4pp\\a.exe")) << "only ASCII letters are lower-cased";
  EXPECT_EQ(filter.Paths().size(), 2u) << "the number element is skipped";
  EXPECT_EQ(log.count(L"invalid json, isn't an array: {\"path\":\"C:\\\\Y\"}"), 1u);
  EXPECT_EQ(log.count(L"invalid json: [\"C:\\\\Z\""), 1u);
  EXPECT_EQ(log.count(L"AppAgentDPDll get app_paths for Bare failed err=2"), 1u);

  filter.AddPaths(L"[\"\"]");
  EXPECT_TRUE(filter.Matches(L"E:\\anything.exe")) << "an empty path matches every key";
  filter.Init();
  EXPECT_FALSE(filter.Matches(L"E:\\anything.exe")) << "Init starts from an empty set";
}

TEST(AppsFilter, WithoutTheAgentsExportOrProductInfoTheSetStaysEmpty) {
  testsupport::CapturedLog log;
  // kyusers.dll stands in for a library that lacks the agent's exports.
  CAppsFilter wrong([] { return static_cast<IProductInfo*>(nullptr); }, L"kyusers.dll");
  wrong.AddPaths(L"[\"C:\\\\Old\"]");
  wrong.Init();
  EXPECT_TRUE(wrong.Paths().empty());
  EXPECT_EQ(log.count(L"failed GetProcAddress AppAgentDP_Init err=127"), 1u);

  CAppsFilter noInfo([] { return static_cast<IProductInfo*>(nullptr); });
  noInfo.Init();
  EXPECT_EQ(log.count(L"AppAgentDPDll init agent path failed, path=<error-interface-not-inited> failed err=161"), 1u);
}

}  // namespace
