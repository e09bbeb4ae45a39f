// Run-key entries below Windows 8: values deleted and written back in a scratch Run key.
#include <gtest/gtest.h>

#include "scratch.h"
#include "support/captured_log.h"
#include "startup/run_key_apps.h"

namespace {

using startup::CRunKeyAppsActions;
using startup::CRunKeyAppsEnumerator;
using testing_startup::MakeItem;
using testing_startup::ScratchRunKey;
using testing_startup::ScratchStore;

TEST(RunKeyApps, EnumeratorListsEveryValueWithItsRawCommand) {
  ScratchRunKey key;
  ASSERT_EQ(key.Set(L"Expand", REG_EXPAND_SZ, L"%windir%\\notepad.exe /x"), ERROR_SUCCESS);
  ASSERT_EQ(key.Set(L"Plain", REG_SZ, L"c:\\plain.exe"), ERROR_SUCCESS);
  CRunKeyAppsEnumerator enumerator(HKEY_CURRENT_USER, 1);
  startup::StartupItemList items{MakeItem(L"stale", L"x", L"y")};
  ASSERT_EQ(enumerator.GetStartupApps(key.Subkey(), items), 0u);
  ASSERT_EQ(items.size(), 2u) << "the list is emptied first";
  const auto& expand = items[0]->name == L"Expand" ? items[0] : items[1];
  EXPECT_EQ(expand->path, L"%windir%\\notepad.exe /x") << "data is not expanded";
  EXPECT_EQ(expand->location, key.Location());
  EXPECT_EQ(expand->isUser, 1);
  EXPECT_EQ(enumerator.GetStartupApps(key.Subkey() + L"\\Missing", items), 2u) << "open error returned";
  EXPECT_TRUE(items.empty());
  EXPECT_EQ(enumerator.GetStartupApps(L"", items), 31u);
}

TEST(RunKeyApps, DisableAndDelayTakeTheValueOutAndEnableWritesAnExpandValueBackAsPlainText) {
  ScratchRunKey key;
  ScratchStore store;
  ASSERT_EQ(key.Set(L"A", REG_SZ, L"a.exe"), ERROR_SUCCESS);
  ASSERT_EQ(key.Set(L"B", REG_SZ, L"b.exe"), ERROR_SUCCESS);
  ASSERT_EQ(key.Set(L"Tool", REG_EXPAND_SZ, L"%windir%\\tool.exe"), ERROR_SUCCESS);
  CRunKeyAppsActions actions;
  ASSERT_EQ(actions.Disable({MakeItem(L"A", key.Location(), L"a.exe")}, false), 0);
  EXPECT_EQ(key.Get(L"A"), 0u);
  EXPECT_FALSE(store.Exists()) << "updateStorage false must not touch the store";

  ASSERT_EQ(actions.Delay({MakeItem(L"B", key.Location(), L"b.exe")}, true), 0);
  EXPECT_EQ(key.Get(L"B"), 0u);
  EXPECT_EQ(store.Load("Delayed").size(), 1u);
  EXPECT_TRUE(store.Load("Disabled").empty());

  startup::StartupItemList items;
  ASSERT_EQ(CRunKeyAppsEnumerator(HKEY_CURRENT_USER, 1).GetStartupApps(key.Subkey(), items), 0u);
  ASSERT_EQ(items.size(), 1u);
  ASSERT_EQ(actions.Disable(items, true), 0);
  EXPECT_EQ(key.Get(L"Tool"), 0u);
  ASSERT_EQ(store.Load("Disabled").size(), 1u);
  ASSERT_EQ(actions.Enable(store.Load("Disabled"), true), 0);
  std::wstring text;
  EXPECT_EQ(key.Get(L"Tool", &text), static_cast<DWORD>(REG_SZ));
  EXPECT_EQ(text, L"%windir%\\tool.exe");
  EXPECT_TRUE(store.Load("Disabled").empty()) << "enable removes the record";
}

TEST(RunKeyApps, AStoreThatCannotBeWrittenPutsTheValueBack) {
  ScratchRunKey key;
  ASSERT_EQ(key.Set(L"Keep", REG_SZ, L"keep.exe /a"), ERROR_SUCCESS);
  const auto unwritable = testing_startup::PointStoreAtUnwritablePath();
  CRunKeyAppsActions actions;
  EXPECT_EQ(actions.Disable({MakeItem(L"Keep", key.Location(), L"keep.exe /a")}, true), 31);
  std::wstring text;
  EXPECT_EQ(key.Get(L"Keep", &text), static_cast<DWORD>(REG_SZ));
  EXPECT_EQ(text, L"keep.exe /a");
}

TEST(RunKeyApps, UnknownRootsIncompleteItemsAndMissingProgramsFail) {
  ScratchRunKey key;
  ScratchStore store;
  CRunKeyAppsActions actions;
  const std::wstring unknown = L"HKEY_UNKNOWN\\" + key.Subkey();
  testsupport::CapturedLog log;
  EXPECT_EQ(actions.Enable({MakeItem(L"X", unknown, L"x.exe")}, true), 31);
  EXPECT_TRUE(log.contains(L"RollbackToRegistry FAILED " + unknown));
  EXPECT_TRUE(log.contains(L"Enable " + unknown + L" X")) << "each item is logged with location, then name";
  EXPECT_EQ(actions.Disable({MakeItem(L"X", unknown, L"x.exe")}, true), 31);
  EXPECT_EQ(actions.Disable({MakeItem(L"X", L"hkey_current_user\\" + key.Subkey(), L"x.exe")}, true), 31)
      << "root names are case-sensitive";
  EXPECT_EQ(actions.Disable({MakeItem(L"X", key.Location(), L"")}, true), 31) << "an empty command fails Disable";
  EXPECT_EQ(actions.Enable({MakeItem(L"X", key.Location(), L"")}, true), 0) << "and is passed over by Enable";
  EXPECT_EQ(key.Get(L"X"), 0u);

  EXPECT_EQ(actions.Check(*MakeItem(L"n", L"l", L"%windir%\\system32\\rundll32.exe shell32.dll,X")), 0);
  EXPECT_EQ(actions.Check(*MakeItem(L"n", L"l", L"c:\\no\\such\\program.exe /x")), 31);
}

}  // namespace
