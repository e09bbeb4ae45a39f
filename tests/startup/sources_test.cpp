// Which actions serve this Windows, and the users library.
#include <gtest/gtest.h>

#include <string>

#include "startup/action_exec.h"
#include "support/programs.h"
#include "support/scoped_override.h"
#include "users/ky_users.h"

namespace {

// The Run-key and folder actions each Windows gets show end to end in startupctl_test.
TEST(StartupActionExec, StoreTasksHaveActionsFromWindows8On) {
  startup::StartupAppsActionExec exec;
  ASSERT_EQ(exec.IsWindows8OrGreater(), testsupport::WineFlavourIsWin10()) << "the version check must see the prefix's flavour";
  EXPECT_EQ(exec.Find(startup::kSourceStoreApp) != nullptr, testsupport::WineFlavourIsWin10());
  EXPECT_EQ(exec.Find(-1), nullptr);
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
