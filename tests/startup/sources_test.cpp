// Where entries are looked for, which actions serve this Windows, and the users library.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "startup/action_exec.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/startup_items.h"
#include "startup/win8_actions.h"
#include "support/captured_log.h"
#include "users/ky_users.h"

namespace {

bool FlavourIsWin10() {
  const char* flavour = std::getenv("LUMERA_WINE_FLAVOUR");
  return flavour != nullptr && std::string(flavour) == "win10";
}

TEST(StartupActionExec, ChoosesTheActionsOfTheRunningWindows) {
  testsupport::CapturedLog log;
  log.clear();
  startup::StartupAppsActionExec exec;
  EXPECT_TRUE(log.contains(FlavourIsWin10() ? L"Windows8OrGreater" : L"bellow Windows8"));
  ASSERT_EQ(exec.IsWindows8OrGreater(), FlavourIsWin10());
  if (FlavourIsWin10()) {
    EXPECT_NE(dynamic_cast<startup::CWin8RunKeyAppsActions*>(exec.Find(startup::kSourceRunKey)), nullptr);
    EXPECT_NE(dynamic_cast<startup::CWin8StartupFolderActions*>(exec.Find(startup::kSourceStartupFolder)), nullptr);
  } else {
    EXPECT_NE(dynamic_cast<startup::CRunKeyAppsActions*>(exec.Find(startup::kSourceRunKey)), nullptr);
    EXPECT_NE(dynamic_cast<startup::CStartupFolderActions*>(exec.Find(startup::kSourceStartupFolder)), nullptr);
  }
  EXPECT_EQ(exec.Find(startup::kSourceStoreApp), nullptr) << "Store startup tasks have no actions";
  EXPECT_EQ(exec.Find(-1), nullptr);
}

TEST(StartupItems, TheUsersRunKeyIsReachedThroughTheirSid) {
  std::wstring sid;
  ASSERT_TRUE(startup::CStartupItems::GetCrtUserSid(sid));
  EXPECT_EQ(sid.rfind(L"S-1-", 0), 0u) << sid;

  startup::CStartupItems items;
  const auto& runs = items.RunKeySources();
  ASSERT_EQ(runs.size(), 3u);
  auto* user = dynamic_cast<startup::CRunKeyAppsEnumerator*>(runs[0].first.get());
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->Root(), HKEY_USERS);
  EXPECT_EQ(user->IsUser(), 1);
  EXPECT_EQ(runs[0].second, sid + L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Run");
  EXPECT_EQ(runs[2].second, L"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run");
  EXPECT_EQ(items.StoreSource().root, HKEY_CLASSES_ROOT);

  const auto& folders = items.FolderSources();
  ASSERT_EQ(folders.size(), 2u);
  EXPECT_EQ(folders[0].second.back(), L'\\');
  EXPECT_EQ(folders[0].second.find(L'%'), std::wstring::npos) << "expanded: " << folders[0].second;
  EXPECT_EQ(folders[0].first->GetSourceKind(), startup::kSourceStartupFolder);
}

TEST(KyUsers, ReportsTheConsoleUserAndImpersonatesThem) {
  auto& users = velora::utils::CKYUsers::Instance();
  users.UnloadDll();
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
