// StoreAppsList.dll over the AppModel repository key: packages with their family names, and
// the module's default enumerator finding a staged package's task through it.
#include <gtest/gtest.h>

#include <algorithm>

#include "startup/store_apps_actions.h"
#include "startup/store_apps_library.h"
#include "startup/store_startup_item.h"
#include "store_scratch.h"
#include "support/captured_log.h"
#include "support/scratch_folder.h"

namespace {

using testing_store::Manifest;
using testing_store::RepositoryEntry;
using testing_store::StagedPackage;
using testing_store::Uap5Application;

const MicrosoftStoreApp* Find(const std::vector<MicrosoftStoreApp>& apps, const std::wstring& fullName) {
  const auto it = std::find_if(apps.begin(), apps.end(), [&](const MicrosoftStoreApp& a) { return fullName == a.fullName; });
  return it == apps.end() ? nullptr : &*it;
}

TEST(StoreAppsList, ListsPackagesWithFamilyNamesAndLeavesOutIncompleteOnes) {
  StagedPackage package;
  RepositoryEntry entry(package.FullName());
  entry.Set(storeapps::kRootFolderValue, package.Folder());
  entry.Set(storeapps::kDisplayNameValue, L"Staged Terminal");
  const std::wstring unique = testsupport::UniqueSuffix();
  RepositoryEntry noFolder(L"LumeraNoFolder" + unique + L"_1.0.0.0_x64__pub");
  RepositoryEntry badName(L"LumeraBadName" + unique + L"_1.0.0.0_x64");
  badName.Set(storeapps::kRootFolderValue, package.Folder());

  std::vector<MicrosoftStoreApp> apps;
  ASSERT_EQ(startup::CStoreAppsLibrary::Instance().GetStoreApps(testing_store::UserSid(), apps), 0u);
  const MicrosoftStoreApp* listed = Find(apps, package.FullName());
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(std::wstring(listed->familyName), package.Family()) << "name and publisher id, the resource id empty";
  EXPECT_EQ(std::wstring(listed->rootFolder), package.Folder());
  EXPECT_EQ(std::wstring(listed->displayName), L"Staged Terminal");
  EXPECT_EQ(std::wstring(listed->publisherDisplayName), L"");
  for (const auto& app : apps) {
    EXPECT_EQ(std::wstring(app.fullName).find(L"LumeraNoFolder" + unique), std::wstring::npos);
    EXPECT_EQ(std::wstring(app.fullName).find(L"LumeraBadName" + unique), std::wstring::npos);
  }
}

TEST(StoreAppsList, TheModulesEnumeratorFindsAStagedTaskUntilItsManifestGoes) {
  StagedPackage package;
  package.WriteManifest(Manifest(Uap5Application("App", "App.exe", "StagedTask", "true")));
  RepositoryEntry entry(package.FullName());
  entry.Set(storeapps::kRootFolderValue, package.Folder());

  startup::MicrosoftStoreAppsEnumerator enumerator(testing_store::UserSid());
  std::vector<startup::MicrosoftStoreTask> tasks;
  ASSERT_EQ(enumerator.GetStoreTasks(testing_store::SystemAppDataPath(), tasks), 0u);
  const auto it = std::find_if(tasks.begin(), tasks.end(),
                               [&](const startup::MicrosoftStoreTask& t) { return t.familyName == package.Family(); });
  ASSERT_NE(it, tasks.end());
  const startup::StartupItem& item = *it->item;
  EXPECT_EQ(item.name, L"StagedTask");
  EXPECT_EQ(item.location, package.Location());

  bool enabled = false;
  ASSERT_EQ(startup::MicrosoftStoreStartupItem::IsEnabled(item, enabled), 0u);
  EXPECT_TRUE(enabled) << "the manifest's Enabled, found again through the library";
  startup::MicrosoftStoreAppsActions actions;
  EXPECT_EQ(actions.Check(item), 0);
  ::DeleteFileW((package.Folder() + L"\\AppxManifest.xml").c_str());
  EXPECT_EQ(actions.Check(item), 31) << "the task is no longer declared";
}

TEST(StoreAppsList, AMissingOrWrongLibraryIsLoggedAndListsNothing) {
  testsupport::CapturedLog log;
  std::vector<MicrosoftStoreApp> apps;
  startup::CStoreAppsLibrary missing(testsupport::ExeFolder() + L"NoSuchStoreAppsList.dll");
  EXPECT_EQ(missing.GetStoreApps(testing_store::UserSid(), apps), startup::kStoreAppsUnavailable);
  EXPECT_TRUE(log.contains(L"Failed LoadLibrary " + testsupport::ExeFolder() + L"NoSuchStoreAppsList.dll"));
  startup::CStoreAppsLibrary wrong(testsupport::ExeFolder() + L"kyusers.dll");
  EXPECT_EQ(wrong.GetStoreApps(testing_store::UserSid(), apps), startup::kStoreAppsUnavailable);
  EXPECT_TRUE(log.contains(L"Failed GetProcAddress GetStoreAppsOfUser"));
  EXPECT_TRUE(apps.empty());
}

}  // namespace
