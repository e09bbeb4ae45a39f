// Startup-folder entries below Windows 8: files moved into and out of the hidden backup
// folder of a scratch folder.
#include <gtest/gtest.h>

#include <algorithm>

#include "scratch.h"
#include "startup/startup_folder_apps.h"
#include "support/captured_log.h"
#include "support/programs.h"
#include "support/registry_values.h"

namespace {

using startup::CStartupFolderActions;
using testing_startup::MakeItem;
using testing_startup::ScratchStore;
using testsupport::Exists;
using testsupport::ScratchFolder;

TEST(StartupFolderApps, ListsProgramsScriptsAndReadableShortcutsOnly) {
  ScratchFolder folder;
  const std::wstring target = testsupport::WriteFileBytes(folder.file(L"target.dat"));
  ASSERT_EQ(testsupport::SaveShortcut(folder.file(L"App.LNK"), target), S_OK);
  for (const wchar_t* name : {L"Tool.EXE", L"run.bat", L"notes.txt", L"desktop.ini", L"README"}) {
    testsupport::WriteFileBytes(folder.file(name));
  }
  testsupport::WriteFileBytes(folder.file(L"broken.lnk"), "not a shortcut");
  ::CreateDirectoryW(folder.file(L"KyBkpFolder").c_str(), nullptr);
  testsupport::WriteFileBytes(folder.file(L"KyBkpFolder\\hidden.exe"));

  startup::StartupItemList items;
  const std::wstring noSlash = folder.path().substr(0, folder.path().size() - 1);
  ASSERT_EQ(startup::CStartupFolderEnumerator(1).GetStartupApps(noSlash, items), 0u);
  std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a->name < b->name; });
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0]->name, L"App.LNK");
  EXPECT_EQ(_wcsicmp(items[0]->path.c_str(), target.c_str()), 0) << "a shortcut's path is its target";
  EXPECT_EQ(items[1]->name, L"Tool.EXE");
  EXPECT_EQ(items[1]->path, folder.file(L"Tool.EXE"));
  EXPECT_EQ(items[1]->location, folder.path()) << "the location gains its trailing backslash";
  EXPECT_EQ(items[1]->isUser, 1);
  EXPECT_EQ(items[2]->name, L"run.bat");

  EXPECT_EQ(startup::CStartupFolderEnumerator(0).GetStartupApps(target, items), 31u) << "a file is not a folder";
}

TEST(StartupFolderApps, DisableMovesAProgramIntoTheHiddenBackupFolderAndEnableBringsItBack) {
  ScratchFolder folder;
  ScratchStore store;
  const std::wstring original = testsupport::WriteFileBytes(folder.file(L"app.exe"));
  const std::wstring moved = folder.file(L"KyBkpFolder\\app.exe");
  auto item = MakeItem(L"app.exe", folder.path(), original);
  CStartupFolderActions actions(startup::kBackupFolderName);
  EXPECT_EQ(actions.Check(*item), 0);
  ASSERT_EQ(actions.Disable({item}, true), 0);
  EXPECT_FALSE(Exists(original));
  EXPECT_TRUE(Exists(moved));
  EXPECT_EQ(item->backupPath, moved);
  EXPECT_EQ(item->path, moved) << "a program's path follows the moved file";
  EXPECT_NE(::GetFileAttributesW(folder.file(L"KyBkpFolder").c_str()) & FILE_ATTRIBUTE_HIDDEN, 0u);
  ASSERT_EQ(store.Load("StartupDisabled").size(), 1u);
  EXPECT_EQ(store.Load("StartupDisabled")[0]->backupPath, moved);

  ASSERT_EQ(actions.Enable({item}, true), 0);
  EXPECT_TRUE(Exists(original));
  EXPECT_FALSE(Exists(moved));
  EXPECT_TRUE(item->backupPath.empty());
  EXPECT_EQ(item->path, original);
  EXPECT_TRUE(store.Load("StartupDisabled").empty());
  EXPECT_EQ(actions.Check(*MakeItem(L"b.exe", folder.path(), folder.file(L"b.exe"))), 31) << "no such file";
}

TEST(StartupFolderApps, AShortcutKeepsItsTargetAndAReadOnlyBackupFolderIsMadeWritable) {
  ScratchFolder folder;
  ScratchStore store;
  const std::wstring backup = folder.file(L"KyBkpFolder");
  ASSERT_TRUE(::CreateDirectoryW(backup.c_str(), nullptr));
  ASSERT_TRUE(::SetFileAttributesW(backup.c_str(), FILE_ATTRIBUTE_READONLY));
  testsupport::WriteFileBytes(folder.file(L"app.lnk"));
  auto item = MakeItem(L"app.lnk", folder.path(), L"C:\\Program Files\\App\\app.exe");
  ASSERT_EQ(CStartupFolderActions(startup::kBackupFolderName).Delay({item}, true), 0);
  EXPECT_EQ(::GetFileAttributesW(backup.c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
  EXPECT_TRUE(Exists(backup + L"\\app.lnk"));
  EXPECT_EQ(item->path, L"C:\\Program Files\\App\\app.exe");
  EXPECT_EQ(store.Load("StartupDelayed").size(), 1u);
  EXPECT_TRUE(store.Load("StartupDisabled").empty());
}

TEST(StartupFolderApps, MissingFilesAndUnwritableStoresLeaveTheFolderAsItWas) {
  ScratchFolder folder;
  CStartupFolderActions actions(startup::kBackupFolderName);
  {
    ScratchStore store;
    testsupport::CapturedLog log;
    EXPECT_EQ(actions.Enable({MakeItem(L"gone.exe", folder.path(), L"x")}, true), 31);
    EXPECT_TRUE(log.contains(L"FAILED MoveFile(" + folder.file(L"KyBkpFolder\\gone.exe, ") + folder.file(L"gone.exe)")));
    EXPECT_EQ(actions.Disable({MakeItem(L"gone.exe", folder.path(), L"x")}, true), 31);
  }
  const std::wstring original = testsupport::WriteFileBytes(folder.file(L"keep.exe"));
  ASSERT_TRUE(::SetFileAttributesW(original.c_str(), FILE_ATTRIBUTE_READONLY));
  const auto unwritable = testing_startup::PointStoreAtUnwritablePath();
  EXPECT_EQ(actions.Disable({MakeItem(L"keep.exe", folder.path(), original)}, true), 31);
  EXPECT_TRUE(Exists(original)) << "the file moves back when the record cannot be written";
  EXPECT_FALSE(Exists(folder.file(L"KyBkpFolder\\keep.exe")));
  EXPECT_EQ(::GetFileAttributesW(original.c_str()) & FILE_ATTRIBUTE_READONLY, 0u) << "made writable and kept so";
}

TEST(StartupFolderApps, ItemsLackingANameLocationOrPathAreRefusedByDisableAndDelayAndPassedOverByEnable) {
  ScratchFolder folder;
  ScratchStore store;
  const std::wstring file = testsupport::WriteFileBytes(folder.file(L"app.exe"));
  const wchar_t kDriveRootBackup[] = L"\\KyBkpFolder";
  const bool rootBackupBefore = Exists(kDriveRootBackup);
  struct Case {
    const char* what;
    startup::StartupItemPtr item;
  } cases[] = {
      {"no name", MakeItem(L"", folder.path(), file)},
      {"no location", MakeItem(L"app.exe", L"", file)},
      {"no path", MakeItem(L"app.exe", folder.path(), L"")},
  };
  CStartupFolderActions actions(startup::kBackupFolderName);
  for (const Case& c : cases) {
    for (bool delay : {false, true}) {
      testsupport::CapturedLog log;
      const std::uint8_t result = delay ? actions.Delay({c.item}, true) : actions.Disable({c.item}, true);
      EXPECT_EQ(result, 31) << c.what << (delay ? " (delay)" : " (disable)");
      EXPECT_EQ(log.count(L"FAILED " + c.item->location), 1u) << c.what;
    }
    EXPECT_TRUE(Exists(file)) << c.what << ": nothing moved";
    EXPECT_EQ(actions.Enable({c.item}, false), 0) << c.what << ": passed over";
  }
  EXPECT_FALSE(Exists(folder.file(L"KyBkpFolder"))) << "no backup folder made";
  EXPECT_EQ(Exists(kDriveRootBackup), rootBackupBefore) << "no backup folder at the drive root";
  if (!rootBackupBefore) ::RemoveDirectoryW(kDriveRootBackup);
  EXPECT_TRUE(store.Load("StartupDisabled").empty());
  EXPECT_TRUE(store.Load("StartupDelayed").empty());
}

}  // namespace
