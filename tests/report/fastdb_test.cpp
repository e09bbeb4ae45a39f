// KYFastDB.dll loaded as the module loads it: digests of real files against known values and
// sha256sum, its error codes, and its cache across loads of the library.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <array>
#include <string>

#include "common/module_library.h"
#include "lumera/kyfastdb.h"
#include "report_files.h"
#include "startup/file_qid.h"
#include "startup/scratch.h"

namespace {

constexpr wchar_t kAbcDigest[] = L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr wchar_t kEmptyDigest[] = L"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::wstring CacheFile() {
  wchar_t programData[MAX_PATH] = {};
  ::SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, programData);
  return std::wstring(programData) + L"\\Nexalon\\Lumera\\" + kyfastdb::kCacheFileName;
}

// The library loaded afresh, so its cache is read from the file again.
class FastDB {
 public:
  FastDB() {
    EXPECT_EQ(library_.Load(testsupport::ExeFolder() + kyfastdb::kLibraryName), 0u);
    fn_ = library_.Resolve<kyfastdb::FastDBGetFileDataFn>(kyfastdb::kGetFileDataName);
  }
  std::uint32_t Get(const std::wstring& path, std::wstring& hex, std::uint32_t bufferBytes = 33, std::int64_t file = -1) {
    std::wstring copy = path;
    std::array<std::uint8_t, 64> buffer{};
    const auto result = static_cast<std::uint32_t>(fn_(copy.data(), file, buffer.data(), bufferBytes));
    hex = startup::HexDigits(buffer.data(), 32);
    return result;
  }
  std::wstring Hex(const std::wstring& path) {
    std::wstring hex;
    EXPECT_EQ(Get(path, hex), 0u) << "for " << testing::PrintToString(path);
    return hex;
  }

 private:
  ky::ModuleLibrary library_;
  kyfastdb::FastDBGetFileDataFn fn_ = nullptr;
};

FILETIME LastWrite(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  ::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
  return data.ftLastWriteTime;
}

void SetLastWrite(const std::wstring& path, const FILETIME& time) {
  ky::unique_file file(::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(::SetFileTime(file.get(), nullptr, nullptr, &time));
}

TEST(FastDB, DigestsMatchKnownValuesAndSha256sum) {
  testsupport::ScratchFolder folder;
  FastDB db;
  EXPECT_EQ(db.Hex(testsupport::WriteFileBytes(folder.file(L"abc.txt"), "abc")), kAbcDigest);
  EXPECT_EQ(db.Hex(testsupport::WriteFileBytes(folder.file(L"empty.txt"), "")), kEmptyDigest);
  for (const wchar_t* name : {L"full", L"german"}) {
    const std::wstring expected = testing_report::Sha256sumOf(name);
    if (expected.empty()) continue;  // sha256sum runs in cross builds only
    EXPECT_EQ(db.Hex(testing_report::Fixture(name)), expected) << name;
  }
  // Larger than one read, so the chunks must be chained.
  std::string big(3 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + (i >> 11));
  const std::wstring bigPath = testsupport::WriteFileBytes(folder.file(L"big.bin"), big);
  startup::CFileQID qids;
  ASSERT_TRUE(qids.Init());
  std::wstring viaModule;
  ASSERT_TRUE(qids.Get(bigPath, viaModule));
  EXPECT_EQ(viaModule, db.Hex(bigPath));
}

TEST(FastDB, FailuresAreWindowsCodesWithTheBufferUntouched) {
  testsupport::ScratchFolder folder;
  const std::wstring file = testsupport::WriteFileBytes(folder.file(L"abc.txt"), "abc");
  FastDB db;
  std::wstring hex;
  EXPECT_EQ(db.Get(folder.file(L"missing.exe"), hex), static_cast<std::uint32_t>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(hex, std::wstring(64, L'0'));
  EXPECT_EQ(db.Get(folder.file(L"no\\such.exe"), hex), static_cast<std::uint32_t>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(db.Get(file, hex, 31), static_cast<std::uint32_t>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(db.Get(file, hex, 33, 0), static_cast<std::uint32_t>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(db.Get(folder.path(), hex), static_cast<std::uint32_t>(ERROR_ACCESS_DENIED)) << "a folder";
  {
    ky::unique_file locked(::CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(db.Get(file, hex), static_cast<std::uint32_t>(ERROR_SHARING_VIOLATION));
  }
}

TEST(FastDB, AnUnchangedFileIsHashedOnceAcrossLoadsAndACorruptCacheIsDropped) {
  testsupport::ScratchFolder folder;
  const std::wstring path = testsupport::WriteFileBytes(folder.file(L"app.exe"), "first content");
  const FILETIME stamp = LastWrite(path);
  const std::wstring first = FastDB().Hex(path);

  // Same size and time, other bytes: only a cached answer can still give the first digest.
  testsupport::WriteFileBytes(path, "other content");
  SetLastWrite(path, stamp);
  EXPECT_EQ(FastDB().Hex(path), first) << "read back from the cache file by a fresh load";

  FILETIME later = stamp;
  later.dwLowDateTime += 10000000;
  if (later.dwLowDateTime < stamp.dwLowDateTime) ++later.dwHighDateTime;
  SetLastWrite(path, later);
  const std::wstring second = FastDB().Hex(path);
  EXPECT_NE(second, first) << "a new last-write time is a new key";

  // A flipped byte anywhere makes the whole cache untrusted.
  SetLastWrite(path, stamp);
  std::string bytes = testsupport::ReadFileBytes(CacheFile());
  ASSERT_GT(bytes.size(), 40u);
  bytes[bytes.size() - 3] ^= 0x5A;
  testsupport::WriteFileBytes(CacheFile(), bytes);
  EXPECT_EQ(FastDB().Hex(path), FastDB().Hex(testsupport::WriteFileBytes(folder.file(L"same.exe"), "other content")))
      << "the stale record went with the corrupt file";
}

}  // namespace
