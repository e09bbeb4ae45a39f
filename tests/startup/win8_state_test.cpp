// StartupApproved values: entries stay in place and their state word is toggled. The Run
// cases use a scratch "...\CurrentVersion\Run" key, whose StartupApproved key lies beside it.
#include <gtest/gtest.h>

#include <vector>

#include "scratch.h"
#include "startup/win8_actions.h"
#include "startup/startup_items.h"
#include "startup/win8_startup_item.h"
#include "support/captured_log.h"
#include "support/registry_values.h"

namespace {

using startup::kSourceRunKey;
using startup::kSourceStartupFolder;
using startup::Win8StartupItem;
using testing_startup::MakeItem;
using testing_startup::ScratchRunKey;
using testing_startup::ScratchStore;

using testsupport::kApprovedFolder;

std::wstring ApprovedOf(const ScratchRunKey& key) { return key.Top() + L"\\CurrentVersion\\Explorer\\StartupApproved\\Run"; }

std::vector<BYTE> ApprovedBytes(const ScratchRunKey& key) {
  return testsupport::RegBinary(HKEY_CURRENT_USER, ApprovedOf(key), L"Tool");
}

TEST(StartupApproved, KeysFollowTheEntrysKindRootAndRunKey) {
  HKEY root = nullptr;
  std::wstring subkey;
  auto item = MakeItem(L"n", L"HKEY_LOCAL_MACHINE\\Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run\\", L"p");
  ASSERT_TRUE(startup::GetItemRegKey(*item, kSourceRunKey, root, subkey));
  EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(subkey, L"software\\microsoft\\windows\\currentversion\\explorer\\startupapproved\\run32");

  item->location = L"HKEY_USERS\\S-1-5-21-1-2-3-1000\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
  ASSERT_TRUE(startup::GetItemRegKey(*item, kSourceRunKey, root, subkey));
  EXPECT_EQ(root, HKEY_USERS);
  EXPECT_EQ(subkey, L"s-1-5-21-1-2-3-1000\\software\\microsoft\\windows\\currentversion\\explorer\\startupapproved\\run");

  item->location = L"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\RunOnce";
  EXPECT_FALSE(startup::GetItemRegKey(*item, kSourceRunKey, root, subkey)) << "only Run keys";
  item->location = L"HKEY_NOWHERE\\Software\\Run";
  EXPECT_FALSE(startup::GetItemRegKey(*item, kSourceRunKey, root, subkey));

  item->isUser = 0;
  ASSERT_TRUE(startup::GetItemRegKey(*item, kSourceStartupFolder, root, subkey));
  EXPECT_EQ(root, HKEY_LOCAL_MACHINE) << "the machine's Startup folder";
  EXPECT_EQ(subkey, kApprovedFolder);
  // The user's own key, below HKEY_USERS, shows in SecondIdentity.TheToolsListAndChangeTheConsoleUsersEntries.
}

TEST(StartupApproved, AMissingValueIsCreatedDisabledAndEnabledBackInPlace) {
  ScratchRunKey key;
  auto item = MakeItem(L"Tool", key.Location(), L"tool.exe");
  EXPECT_TRUE(Win8StartupItem::IsEnabled(*item, kSourceRunKey)) << "a missing value counts as enabled";
  testsupport::CapturedLog log;
  ASSERT_EQ(Win8StartupItem::Enable(*item, kSourceRunKey), 0u);
  EXPECT_TRUE(log.contains(L"item is enabled"));
  EXPECT_TRUE(ApprovedBytes(key).empty()) << "enable of a missing value writes nothing";

  ASSERT_EQ(Win8StartupItem::Disable(*item, kSourceRunKey), 0u);
  EXPECT_EQ(ApprovedBytes(key), std::vector<BYTE>({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(Win8StartupItem::IsEnabled(*item, kSourceRunKey));
  ASSERT_EQ(Win8StartupItem::Enable(*item, kSourceRunKey), 0u);
  EXPECT_EQ(ApprovedBytes(key).at(0), 0);
}

TEST(StartupApproved, TheSecondPairKeepsItsWordsAndTheTimeBytes) {
  ScratchRunKey key;
  const std::vector<BYTE> system = {2, 0, 0, 0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xEE};
  ASSERT_EQ(::RegSetKeyValueW(HKEY_CURRENT_USER, ApprovedOf(key).c_str(), L"Tool", REG_BINARY, system.data(),
                              static_cast<DWORD>(system.size())),
            ERROR_SUCCESS);
  auto item = MakeItem(L"Tool", key.Location(), L"tool.exe");
  ASSERT_EQ(Win8StartupItem::Disable(*item, kSourceRunKey), 0u);
  std::vector<BYTE> expected = system;
  expected[0] = 3;
  EXPECT_EQ(ApprovedBytes(key), expected) << "2 becomes 3, all other bytes kept";
  ASSERT_EQ(Win8StartupItem::Disable(*item, kSourceRunKey), 0u) << "already disabled is success";
  ASSERT_EQ(Win8StartupItem::Enable(*item, kSourceRunKey), 0u);
  EXPECT_EQ(ApprovedBytes(key), system);

  expected[0] = 7;
  ASSERT_EQ(::RegSetKeyValueW(HKEY_CURRENT_USER, ApprovedOf(key).c_str(), L"Tool", REG_BINARY, expected.data(), 12),
            ERROR_SUCCESS);
  EXPECT_FALSE(Win8StartupItem::IsEnabled(*item, kSourceRunKey)) << "an unknown word is not enabled";
  ASSERT_EQ(Win8StartupItem::Enable(*item, kSourceRunKey), 0u);
  EXPECT_EQ(ApprovedBytes(key).at(0), 2);
}

TEST(StartupApproved, RunActionsRecordTheChangeAndUndoItWhenTheStoreFails) {
  ScratchRunKey key;
  ASSERT_EQ(key.Set(L"Tool", REG_SZ, L"%windir%\\notepad.exe"), ERROR_SUCCESS);
  auto item = MakeItem(L"Tool", key.Location(), L"%windir%\\notepad.exe");
  startup::CWin8RunKeyAppsActions actions;
  {
    ScratchStore store;
    ASSERT_EQ(actions.Delay({item}, true), 0);
    EXPECT_EQ(key.Get(L"Tool"), static_cast<DWORD>(REG_SZ)) << "the Run value stays in place";
    EXPECT_FALSE(Win8StartupItem::IsEnabled(*item, kSourceRunKey));
    EXPECT_EQ(store.Load("Delayed").size(), 1u);
    EXPECT_EQ(actions.Check(*item), 0);
    ASSERT_EQ(actions.Enable({item}, true), 0);
    EXPECT_TRUE(store.Load("Delayed").empty());
    EXPECT_TRUE(Win8StartupItem::IsEnabled(*item, kSourceRunKey));
  }
  const auto unwritable = testing_startup::PointStoreAtUnwritablePath();
  EXPECT_EQ(actions.Disable({item}, true), 31);
  EXPECT_TRUE(Win8StartupItem::IsEnabled(*item, kSourceRunKey)) << "a failed save puts the state back";
  EXPECT_EQ(actions.Disable({MakeItem(L"Tool", L"HKEY_UNKNOWN\\x\\Run", L"t.exe")}, false), 31);

  EXPECT_EQ(actions.Check(*MakeItem(L"Gone", key.Location(), L"%windir%\\notepad.exe")), 31)
      << "a Run value that is gone fails the check";
}

}  // namespace
