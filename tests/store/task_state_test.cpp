// The State of a Store startup task: read for every value Windows writes, switched by the
// actions with the change recorded, and refused where a policy set it.
#include <gtest/gtest.h>

#include "startup/scratch.h"
#include "startup/store_apps_actions.h"
#include "startup/store_startup_item.h"
#include "store_scratch.h"
#include "support/captured_log.h"

namespace {

using startup::MicrosoftStoreStartupItem;
using testing_store::Manifest;
using testing_store::StagedPackage;
using testing_store::Uap5Application;

constexpr wchar_t kTask[] = L"StartOnLogin";

startup::StartupItemPtr TaskItem(const StagedPackage& package, const wchar_t* task = kTask) {
  return testing_startup::MakeItem(task, package.Location(), package.Folder() + L"\\App.exe");
}

TEST(StoreTaskState, EveryStateAndAMissingOneReadRight) {
  StagedPackage onByDefault;
  onByDefault.WriteManifest(Manifest(Uap5Application("App", "App.exe", "StartOnLogin", "true")));
  StagedPackage offByDefault;
  offByDefault.WriteManifest(Manifest(Uap5Application("App", "App.exe", "StartOnLogin", "false")));
  auto packages = testing_store::EnumeratorOf({&onByDefault, &offByDefault});

  const auto item = TaskItem(offByDefault);
  const bool expected[] = {false, false, true, false, true};
  for (DWORD state = 0; state <= 4; ++state) {
    offByDefault.SetState(kTask, state);
    bool enabled = !expected[state];
    ASSERT_EQ(MicrosoftStoreStartupItem::IsEnabled(*item, enabled, packages), 0u) << "State " << state;
    EXPECT_EQ(enabled, expected[state]) << "State " << state;
  }
  offByDefault.SetState(kTask, 5);
  bool enabled = false;
  EXPECT_EQ(MicrosoftStoreStartupItem::IsEnabled(*item, enabled, packages), static_cast<std::uint32_t>(ERROR_INVALID_DATA));

  // Without a State the manifest's Enabled holds.
  enabled = true;
  ASSERT_EQ(onByDefault.State(kTask), -1);
  ASSERT_EQ(MicrosoftStoreStartupItem::IsEnabled(*TaskItem(onByDefault), enabled, packages), 0u);
  EXPECT_TRUE(enabled);
  StagedPackage undeclared;
  undeclared.WriteManifest(Manifest(Uap5Application("App", "App.exe", "StartOnLogin", "false")));
  auto withUndeclared = testing_store::EnumeratorOf({&undeclared});
  ASSERT_EQ(MicrosoftStoreStartupItem::IsEnabled(*TaskItem(undeclared), enabled, withUndeclared), 0u);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(MicrosoftStoreStartupItem::IsEnabled(*TaskItem(undeclared, L"OtherTask"), enabled, withUndeclared),
            static_cast<std::uint32_t>(ERROR_NOT_FOUND))
      << "no State and no such task declared";
}

TEST(StoreTaskActions, DisableEnableAndDelayWriteExactlyOneAndTwoAndRecordTheChange) {
  testing_startup::ScratchStore store;
  StagedPackage package;
  startup::MicrosoftStoreAppsActions actions;
  const auto item = TaskItem(package);

  ASSERT_EQ(actions.Disable({item}, true), 0);
  EXPECT_EQ(package.State(kTask), 1);
  ASSERT_EQ(store.Load(startup::kCategoryStoreDisabled).size(), 1u);
  EXPECT_EQ(store.Load(startup::kCategoryStoreDisabled)[0]->name, kTask);
  ASSERT_EQ(actions.Disable({item}, false), 0) << "already disabled";
  EXPECT_EQ(package.State(kTask), 1);

  ASSERT_EQ(actions.Enable({item}, true), 0);
  EXPECT_EQ(package.State(kTask), 2);
  EXPECT_TRUE(store.Load(startup::kCategoryStoreDisabled).empty());

  ASSERT_EQ(actions.Delay({item}, true), 0);
  EXPECT_EQ(package.State(kTask), 1) << "a delayed task is marked as a disabled one";
  EXPECT_EQ(store.Load(startup::kCategoryStoreDelayed).size(), 1u);
  ASSERT_EQ(actions.Enable({item}, true), 0);
  EXPECT_EQ(package.State(kTask), 2);
  EXPECT_TRUE(store.Load(startup::kCategoryStoreDelayed).empty());

  package.SetState(kTask, 0);
  ASSERT_EQ(actions.Enable({item}, false), 0);
  EXPECT_EQ(package.State(kTask), 2);
}

TEST(StoreTaskActions, PolicyStatesFailedSavesAndBadItemsLeaveTheStateAlone) {
  testing_startup::ScratchStore store;
  testsupport::CapturedLog log;
  StagedPackage package;
  startup::MicrosoftStoreAppsActions actions;
  const auto item = TaskItem(package);

  package.SetState(kTask, 3);
  EXPECT_EQ(actions.Enable({item}, true), 31);
  EXPECT_EQ(package.State(kTask), 3);
  package.SetState(kTask, 4);
  EXPECT_EQ(actions.Disable({item}, true), 31);
  EXPECT_EQ(package.State(kTask), 4);
  EXPECT_TRUE(store.Load(startup::kCategoryStoreDisabled).empty());
  EXPECT_EQ(log.count(L"is set by policy"), 2u);
  EXPECT_TRUE(log.contains(L"FAILED " + package.Location()));

  // A disable that cannot be recorded is taken back: a missing State stays missing.
  StagedPackage unrecorded;
  const auto other = TaskItem(unrecorded);
  {
    const auto unwritable = testing_startup::PointStoreAtUnwritablePath();
    EXPECT_EQ(actions.Disable({other}, true), 31);
    EXPECT_EQ(unrecorded.State(kTask), -1);
    unrecorded.SetState(kTask, 2);
    EXPECT_EQ(actions.Delay({other}, true), 31);
    EXPECT_EQ(unrecorded.State(kTask), 2);
  }

  auto noLocation = testing_startup::MakeItem(kTask, L"", L"C:\\App.exe");
  auto badRoot = testing_startup::MakeItem(kTask, L"HKEY_NOWHERE\\x", L"C:\\App.exe");
  EXPECT_EQ(actions.Disable({noLocation, badRoot}, false), 31);
  EXPECT_EQ(actions.Enable({noLocation}, false), 0) << "Enable passes over an item it cannot act on";
  EXPECT_EQ(actions.Enable({badRoot}, false), 31);
}

}  // namespace
