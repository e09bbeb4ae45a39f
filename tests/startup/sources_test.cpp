// Where entries are looked for, which actions serve this Windows, and the users library.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "startup/action_exec.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/startup_items.h"
#include "startup/win8_actions.h"
#include "support/programs.h"
#include "support/scoped_override.h"
#include "users/ky_users.h"

namespace {

TEST(StartupActionExec, ChoosesTheActionsOfTheRunningWindows) {
  startup::StartupAppsActionExec exec;
  ASSERT_EQ(exec.IsWindows8OrGreater(), testsupport::WineFlavourIsWin10()) << "the version check must see the prefix's flavour";
  if (testsupport::WineFlavourIsWin10()) {
    EXPECT_NE(dynamic_cast<startup::CWin8RunKeyAppsActions*>(exec.Find(startup::kSourceRunKey)), nullptr);
    EXPECT_NE(dynamic_cast<startup::CWin8StartupFolderActions*>(exec.Find(startup::kSourceStartupFolder)), nullptr);
  } else {
    EXPECT_NE(dynamic_cast<startup::CRunKeyAppsActions*>(exec.Find(startup::kSourceRunKey)), nullptr);
    EXPECT_NE(dynamic_cast<startup::CStartupFolderActions*>(exec.Find(startup::kSourceStartupFolder)), nullptr);
  }
  EXPECT_EQ(exec.Find(startup::kSourceStoreApp) != nullptr, testsupport::WineFlavourIsWin10()) << "Store tasks have actions from Windows 8 on";
  EXPECT_EQ(exec.Find(-1), nullptr);
}

// The user's Run key is reached through their SID under HKEY_USERS (HKEY_CURRENT_USER when no
// SID is found), then the machine's Run key and its 32-bit view; user Startup folder first.
TEST(StartupItems, ListsSourcesUserFirstThroughTheirSid) {
  std::wstring sid;
  const bool haveSid = startup::CStartupItems::GetCrtUserSid(sid);
  EXPECT_TRUE(haveSid);
  startup::CStartupItems items;
  const auto& runs = items.RunKeySources();
  ASSERT_EQ(runs.size(), 3u);
  EXPECT_EQ(static_cast<startup::CRunKeyAppsEnumerator&>(*runs[0].first).Root(),
            haveSid ? HKEY_USERS : HKEY_CURRENT_USER);
  EXPECT_EQ(runs[0].second, (haveSid ? sid + L"\\" : L"") + startup::kRunKeyPath);
  EXPECT_EQ(runs[1].second, startup::kRunKeyPath);
  EXPECT_EQ(runs[2].second, startup::kRunKeyPathWow);
  const auto& folders = items.FolderSources();
  ASSERT_EQ(folders.size(), 2u);
  EXPECT_EQ(static_cast<startup::CStartupFolderEnumerator&>(*folders[0].first).IsUser(), 1);
  EXPECT_EQ(folders[0].second.find(L'%'), std::wstring::npos) << "expanded: " << folders[0].second;
}

TEST(KyUsers, ReportsTheConsoleUserAndImpersonatesThem) {
  auto& users = velora::utils::CKYUsers::Instance();
  // Unloaded for the test, then loaded or not as the program had it.
  const testsupport::ScopedOverride<bool> unloaded(
      [&] { return users.IsLoaded(); }, [&](bool loaded) { loaded ? (void)users.ReloadDll() : users.UnloadDll(); }, false);
  std::wstring name, domain;
  EXPECT_EQ(users.GetCurrentUserInfoBasic(name, domain), velora::utils::kErrorUsersNotLoaded);
  ASSERT_TRUE(users.ReloadDll());
  ASSERT_EQ(users.GetCurrentUserInfoBasic(name, domain), 0u);
  EXPECT_FALSE(name.empty());
  EXPECT_FALSE(domain.empty());

  kyusers::UserInfoAdvanced info{};
  ASSERT_EQ(users.GetCurrentUserInfoAdvanced(info), 0u);
  EXPECT_EQ(std::wstring(info.userName), name);
  ASSERT_NE(info.appDataFolder[0], L'\0') << "the application-data folder is present";
  EXPECT_NE(::GetFileAttributesW(info.appDataFolder), INVALID_FILE_ATTRIBUTES) << info.appDataFolder;
  {
    velora::utils::CUserImpersonation impersonation(users);
    EXPECT_TRUE(impersonation.Active());
  }
  EXPECT_EQ(users.RevertToSelf(), 0u);
}

}  // namespace
