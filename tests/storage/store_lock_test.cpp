// The store's cross-process lock and the whole-file writer, against real files and real
// kernel objects.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <string>
#include <thread>

#include "common/safe_file.h"
#include "common/unique_handle.h"
#include "startup/scratch.h"
#include "startup/storage_lock.h"
#include "support/captured_log.h"
#include "support/scratch_folder.h"

namespace {

using startup::storage::CStartupItemsStorage;
using startup::storage::StoreLockName;
using testing_startup::MakeItem;
using testing_startup::ScratchStore;

// Every file of the folder, by name.
std::vector<std::wstring> FilesIn(const std::wstring& folder) {
  std::vector<std::wstring> names;
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(folder))) {
    names.push_back(entry.path().filename().wstring());
  }
  return names;
}

// Saves a user record of that name under "Disabled"; the store's result.
std::uint32_t Save(const std::wstring& name) {
  return CStartupItemsStorage::Instance().SaveStartupItem(
      MakeItem(name, L"HKEY_CURRENT_USER\\Run", L"c:\\" + name + L".exe", 1), "Disabled");
}

TEST(StoreLock, EverySpellingOfOneFileNamesOneLockAndOtherFilesAnother) {
  const std::wstring name = StoreLockName(L"C:\\Users\\Ann\\AppData\\Roaming\\Nexalon\\Lumera\\Storage.json");
  EXPECT_EQ(name.rfind(startup::storage::kStoreLockPrefix, 0), 0u);
  EXPECT_EQ(name.find(L'\\', std::wcslen(startup::storage::kStoreLockPrefix)), std::wstring::npos)
      << "a kernel object's name holds no backslash after its namespace";
  EXPECT_EQ(StoreLockName(L"c:/users/ann/appdata/roaming/NEXALON/lumera/storage.json"), name);
  EXPECT_EQ(StoreLockName(L"C:\\Users\\Ann\\AppData\\Roaming\\Nexalon\\Lumera\\..\\Lumera\\Storage.json"), name);
  EXPECT_NE(StoreLockName(L"C:\\Users\\Bob\\AppData\\Roaming\\Nexalon\\Lumera\\Storage.json"), name);
}

// Another holder of the lock (here a thread, as a process would be) keeps every operation out
// until the bounded wait ends: the operation fails with 31, says why, and changes nothing.
TEST(StoreLock, AnOperationThatCannotTakeTheLockFailsWith31AndChangesNothing) {
  ScratchStore file;
  ASSERT_EQ(Save(L"Kept"), 0u);
  const std::string before = file.Text();
  ky::unique_handle taken(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ky::unique_handle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::thread holder([&] {
    const startup::storage::CStoreLock lock(file.Path());
    ::SetEvent(taken.get());
    ::WaitForSingleObject(release.get(), 60000);
  });
  ASSERT_EQ(::WaitForSingleObject(taken.get(), 10000), WAIT_OBJECT_0) << "the holder took the lock";

  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  const DWORD begin = ::GetTickCount();
  const std::uint32_t saved = Save(L"New");
  const DWORD waited = ::GetTickCount() - begin;
  ::SetEvent(release.get());
  holder.join();

  EXPECT_EQ(saved, 31u);
  EXPECT_GE(waited + 100, startup::storage::kStoreLockWaitMs) << "it waited the whole bounded time";
  EXPECT_EQ(file.Text(), before) << "nothing was written";
  EXPECT_TRUE(log.contains(L"not taken within")) << "the lock's failure is logged";
  EXPECT_TRUE(log.contains(L"Save failed"));
  EXPECT_EQ(Save(L"New"), 0u) << "released, the lock is taken again";
}

// A holder that dies with the lock (a killed process) leaves it abandoned: the next operation
// takes it and goes on, since the file it guards is always whole.
TEST(StoreLock, ALockAbandonedByItsHolderIsTakenAndTheOperationGoesOn) {
  ScratchStore file;
  // Held open so the mutex outlives the thread that dies owning it.
  ky::unique_handle kept(::CreateMutexW(nullptr, FALSE, StoreLockName(file.Path()).c_str()));
  ASSERT_TRUE(kept);
  std::thread dying([&] {
    ky::unique_handle mutex(::CreateMutexW(nullptr, FALSE, StoreLockName(file.Path()).c_str()));
    ASSERT_TRUE(mutex) << ::GetLastError();
    ASSERT_EQ(::WaitForSingleObject(mutex.get(), 10000), WAIT_OBJECT_0);
  });
  dying.join();
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  EXPECT_EQ(Save(L"A"), 0u);
  startup::StartupItemList loaded;
  EXPECT_EQ(CStartupItemsStorage::Instance().LoadStartupItems("Disabled", loaded), 0u);
  EXPECT_EQ(loaded.size(), 1u);
  EXPECT_TRUE(log.contains(L"abandoned by its holder")) << "the abandoned lock is logged";
}

TEST(SafeFile, ReplacesTheFileWholeAndLeavesNoTemporaryFile) {
  testsupport::ScratchFolder folder;
  const std::wstring path = folder.file(L"result.json");
  ASSERT_EQ(ky::WriteFileWhole(path, "first"), 0u) << "a new file";
  EXPECT_EQ(testsupport::ReadFileBytes(path), "first");
  const std::string big(3 * 1024 * 1024, 'x');
  ASSERT_EQ(ky::WriteFileWhole(path, big), 0u) << "an existing file";
  EXPECT_EQ(testsupport::ReadFileBytes(path), big);
  ASSERT_EQ(ky::WriteFileWhole(path, ""), 0u) << "an empty document";
  EXPECT_EQ(testsupport::ReadFileBytes(path), "");
  EXPECT_EQ(FilesIn(folder.path()), std::vector<std::wstring>{L"result.json"});

  // A reader that keeps the file open holds its name (Windows replaces no open file): the write
  // fails after its bounded retries, the file stays whole, and succeeds once the reader is gone.
  ASSERT_EQ(ky::WriteFileWhole(path, "old"), 0u);
  ky::unique_file reader(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(reader);
  EXPECT_NE(ky::WriteFileWhole(path, "new"), 0u);
  EXPECT_EQ(testsupport::ReadFileBytes(path), "old");
  reader.reset();
  EXPECT_EQ(ky::WriteFileWhole(path, "new"), 0u);
  EXPECT_EQ(testsupport::ReadFileBytes(path), "new");
  EXPECT_EQ(FilesIn(folder.path()), std::vector<std::wstring>{L"result.json"});
}

TEST(SafeFile, AFailedWriteLeavesTheTargetAsItWasAndNoTemporaryFile) {
  testsupport::ScratchFolder folder;
  const std::wstring asFolder = folder.file(L"taken");
  ASSERT_TRUE(::CreateDirectoryW(asFolder.c_str(), nullptr));
  ASSERT_EQ(ky::WriteFileWhole(asFolder + L"\\inside.json", "kept"), 0u);
  EXPECT_NE(ky::WriteFileWhole(asFolder, "text"), 0u) << "a folder is never replaced";
  EXPECT_EQ(testsupport::ReadFileBytes(asFolder + L"\\inside.json"), "kept");
  EXPECT_EQ(FilesIn(folder.path()), std::vector<std::wstring>{L"taken"});
  EXPECT_EQ(ky::WriteFileWhole(folder.file(L"missing\\result.json"), "text"), static_cast<std::uint32_t>(ERROR_PATH_NOT_FOUND));
}

// A link put where the service writes must not carry the write elsewhere. Wine has neither
// symbolic links nor junctions that Windows programs can make: there the case is skipped.
TEST(SafeFile, ALinkAtTheTargetOrAsItsFolderIsRefused) {
  testsupport::ScratchFolder folder;
  const std::wstring elsewhere = folder.file(L"elsewhere.json");
  ASSERT_EQ(ky::WriteFileWhole(elsewhere, "victim"), 0u);
  const std::wstring link = folder.file(L"link.json");
  ::SetLastError(0);
  const bool made = ::CreateSymbolicLinkW(link.c_str(), elsewhere.c_str(), 0);
  const DWORD attributes = ::GetFileAttributesW(link.c_str());
  if (!made || attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    GTEST_SKIP() << "no symbolic links here (Wine reports one made but makes none)";
  }
  EXPECT_EQ(ky::WriteFileWhole(link, "steered"), static_cast<std::uint32_t>(ERROR_CANT_ACCESS_FILE));
  EXPECT_EQ(testsupport::ReadFileBytes(elsewhere), "victim");
  const std::wstring linkedFolder = folder.file(L"linked");
  ASSERT_TRUE(::CreateSymbolicLinkW(linkedFolder.c_str(), folder.path().c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY));
  EXPECT_EQ(ky::WriteFileWhole(linkedFolder + L"\\elsewhere.json", "steered"), static_cast<std::uint32_t>(ERROR_CANT_ACCESS_FILE));
  EXPECT_EQ(testsupport::ReadFileBytes(elsewhere), "victim");
}

}  // namespace
