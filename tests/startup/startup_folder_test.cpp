// Startup-folder entries below Windows 8: files moved into and out of the hidden backup
// folder of a scratch folder.
#include <gtest/gtest.h>

#include <objbase.h>
#include <shlobj.h>

#include <algorithm>

#include "scratch.h"
#include "support/captured_log.h"
#include "startup/startup_folder_apps.h"

namespace {

using startup::CStartupFolderActions;
using startup::CStartupFolderEnumerator;
using testing_startup::MakeItem;
using testing_startup::ScratchFolder;
using testing_startup::ScratchStore;

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// Writes a shortcut to `target`; false when the shell could not.
bool MakeShortcut(const std::wstring& file, const std::wstring& target) {
  const bool com = SUCCEEDED(::CoInitialize(nullptr));
  IShellLinkW* link = nullptr;
  IPersistFile* persist = nullptr;
  bool ok = SUCCEEDED(::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                         reinterpret_cast<void**>(&link))) &&
            SUCCEEDED(link->SetPath(target.c_str())) &&
            SUCCEEDED(link->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&persist))) &&
            SUCCEEDED(persist->Save(file.c_str(), TRUE));
  if (persist != nullptr) persist->Release();
  if (link != nullptr) link->Release();
  if (com) ::CoUninitialize();
  return ok;
}

startup::StartupItemPtr Find(const startup::StartupItemList& items, const std::wstring& name) {
  const auto it = std::find_if(items.begin(), items.end(), [&](const auto& item) { return item->name == name; });
  return it == items.end() ? nullptr : *it;
}

TEST(StartupFolderApps, ListsProgramsScriptsAndReadableShortcutsOnly) {
  ScratchFolder folder;
  const std::wstring target = folder.File(L"target.dat");
  ASSERT_TRUE(MakeShortcut(folder.Path() + L"App.LNK", target));
  folder.File(L"Tool.EXE");
  folder.File(L"run.bat");
  folder.File(L"notes.txt");
  folder.File(L"desktop.ini");
  folder.File(L"README");
  folder.File(L"broken.lnk", "not a shortcut");
  ::CreateDirectoryW((folder.Path() + L"KyBkpFolder").c_str(), nullptr);
  folder.File(L"KyBkpFolder\\hidden.exe");

  startup::StartupItemList items;
  std::wstring noSlash = folder.Path();
  noSlash.pop_back();
  ASSERT_EQ(CStartupFolderEnumerator(1).GetStartupApps(noSlash, items), 0u);
  std::vector<std::wstring> names;
  for (const auto& item : items) names.push_back(item->name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::wstring>{L"App.LNK", L"Tool.EXE", L"run.bat"}));
  const auto shortcut = Find(items, L"App.LNK");
  ASSERT_NE(shortcut, nullptr);
  EXPECT_EQ(_wcsicmp(shortcut->path.c_str(), target.c_str()), 0) << "a shortcut's path is its target";
  const auto tool = Find(items, L"Tool.EXE");
  ASSERT_NE(tool, nullptr);
  EXPECT_EQ(tool->path, folder.Path() + L"Tool.EXE");
  EXPECT_EQ(tool->location, folder.Path()) << "the location gains its trailing backslash";
  EXPECT_EQ(tool->isUser, 1);

  EXPECT_EQ(CStartupFolderEnumerator(0).GetStartupApps(target, items), 31u) << "a file is not a folder";
}

TEST(StartupFolderApps, DisableMovesAProgramIntoTheHiddenBackupFolderAndEnableBringsItBack) {
  ScratchFolder folder;
  ScratchStore store;
  const std::wstring original = folder.File(L"app.exe");
  auto item = MakeItem(L"app.exe", folder.Path(), original);
  CStartupFolderActions actions(startup::kBackupFolderName);
  ASSERT_EQ(actions.Disable({item}, true), 0);
  const std::wstring moved = folder.Path() + L"KyBkpFolder\\app.exe";
  EXPECT_FALSE(Exists(original));
  EXPECT_TRUE(Exists(moved));
  EXPECT_EQ(item->backupPath, moved);
  EXPECT_EQ(item->path, moved) << "a program's path follows the moved file";
  const DWORD attributes = ::GetFileAttributesW((folder.Path() + L"KyBkpFolder").c_str());
  EXPECT_NE(attributes & FILE_ATTRIBUTE_HIDDEN, 0u) << "the backup folder is hidden";
  ASSERT_EQ(store.Load("StartupDisabled").size(), 1u);
  EXPECT_EQ(store.Load("StartupDisabled")[0]->backupPath, moved);

  ASSERT_EQ(actions.Enable({item}, true), 0);
  EXPECT_TRUE(Exists(original));
  EXPECT_FALSE(Exists(moved));
  EXPECT_TRUE(item->backupPath.empty());
  EXPECT_EQ(item->path, original);
  EXPECT_TRUE(store.Load("StartupDisabled").empty());
}

TEST(StartupFolderApps, AShortcutKeepsItsTargetAndAReadOnlyBackupFolderIsMadeWritable) {
  ScratchFolder folder;
  ScratchStore store;
  const std::wstring backup = folder.Path() + L"KyBkpFolder";
  ASSERT_TRUE(::CreateDirectoryW(backup.c_str(), nullptr));
  ASSERT_TRUE(::SetFileAttributesW(backup.c_str(), FILE_ATTRIBUTE_READONLY));
  folder.File(L"app.lnk");
  auto item = MakeItem(L"app.lnk", folder.Path(), L"C:\\Program Files\\App\\app.exe");
  CStartupFolderActions actions(startup::kBackupFolderName);
  ASSERT_EQ(actions.Delay({item}, true), 0);
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
    log.clear();
    EXPECT_EQ(actions.Enable({MakeItem(L"gone.exe", folder.Path(), L"x")}, true), 31);
    EXPECT_TRUE(log.contains(L"FAILED MoveFile(" + folder.Path() + L"KyBkpFolder\\gone.exe, " + folder.Path() +
                             L"gone.exe)"));
    EXPECT_EQ(actions.Disable({MakeItem(L"gone.exe", folder.Path(), L"x")}, true), 31);
  }
  const std::wstring original = folder.File(L"keep.exe");
  ASSERT_TRUE(::SetFileAttributesW(original.c_str(), FILE_ATTRIBUTE_READONLY));
  testing_startup::PointStoreAtUnwritablePath();
  EXPECT_EQ(actions.Disable({MakeItem(L"keep.exe", folder.Path(), original)}, true), 31);
  EXPECT_TRUE(Exists(original)) << "the file moves back when the record cannot be written";
  EXPECT_FALSE(Exists(folder.Path() + L"KyBkpFolder\\keep.exe"));
  EXPECT_EQ(::GetFileAttributesW(original.c_str()) & FILE_ATTRIBUTE_READONLY, 0u) << "made writable and kept so";
}

TEST(StartupFolderApps, CheckLooksForTheTargetFile) {
  ScratchFolder folder;
  CStartupFolderActions actions(startup::kBackupFolderName);
  EXPECT_EQ(actions.Check(*MakeItem(L"a.exe", folder.Path(), folder.File(L"a.exe"))), 0);
  EXPECT_EQ(actions.Check(*MakeItem(L"b.exe", folder.Path(), folder.Path() + L"b.exe")), 31);
}

}  // namespace
