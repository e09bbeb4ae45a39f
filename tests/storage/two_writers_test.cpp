// Two startupctl.exe processes change one user's store at the same time, as two people (or a
// person and the service) would: no entry may end up neither in its Run key nor in the store.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "picojson.h"
#include "support/programs.h"
#include "support/registry_values.h"
#include "support/scratch_folder.h"

namespace {

using testsupport::kRunKey;
constexpr int kFillers = 3000;
constexpr int kEntriesPerWriter = 200;
constexpr int kStale = 10;
constexpr DWORD kWriterTimeoutMs = 240000;

using testsupport::Narrow;

// The names the store holds under "user" / "Disabled"; false when it does not parse.
bool StoredNames(const std::wstring& path, std::multiset<std::string>& names) {
  picojson::value document;
  if (!picojson::parse(document, testsupport::ReadFileBytes(path)).empty()) return false;
  const picojson::value& section = document.get("user").get("Disabled");
  if (!section.is<picojson::array>()) return true;
  for (const auto& element : section.get<picojson::array>()) names.insert(element.get("Name").to_str());
  return true;
}

class TwoWriters : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 2 * kEntriesPerWriter; ++i) {
      names_.push_back(L"LumeraTwoWriters" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(i));
      ASSERT_EQ(testsupport::SetRegText(HKEY_CURRENT_USER, kRunKey, names_.back(), L"C:\\windows\\notepad.exe"), ERROR_SUCCESS);
    }
    std::filesystem::create_directories(std::filesystem::path(storage_).parent_path());
    if (::GetFileAttributesW(storage_.c_str()) != INVALID_FILE_ATTRIBUTES) {
      ASSERT_TRUE(::MoveFileExW(storage_.c_str(), saved_.c_str(), MOVEFILE_REPLACE_EXISTING));
      storageSaved_ = true;
    }
    std::string records;
    const auto add = [&records](const std::string& name, const char* command) {
      records += std::string(records.empty() ? "" : ",") + R"({"BkpPath":"","ChangedTime":1700000000,"Cmd":")" +
                 command + R"(","Name":")" + name + R"(","Path":"HKEY_CURRENT_USER\\Software\\Lumera\\Nowhere"})";
    };
    // A store that has been in use for a long time: every record names one existing program.
    for (int i = 0; i < kFillers; ++i) add("LumeraFiller" + std::to_string(i), R"(C:\\windows\\notepad.exe)");
    // Records whose program is gone, which the service's read-back takes out: a writer of its own.
    for (int i = 0; i < kStale; ++i) add("LumeraStale" + std::to_string(i), R"(C:\\no-such-folder-lumera\\gone.exe)");
    testsupport::WriteFileBytes(storage_, R"({"user":{"Disabled":[)" + records + "]}}");
  }

  void TearDown() override {
    for (const auto& name : names_) ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, name.c_str());
    ::DeleteFileW(storage_.c_str());
    if (storageSaved_) ::MoveFileExW(saved_.c_str(), storage_.c_str(), MOVEFILE_REPLACE_EXISTING);
  }

  // startupctl acting on names [first, last).
  testsupport::ProgramRun Act(const std::wstring& verb, int first, int last) const {
    std::wstring arguments = verb;
    for (int i = first; i < last; ++i) arguments += L" " + names_[i];
    return testsupport::RunBinProgram(L"startupctl.exe", arguments, kWriterTimeoutMs);
  }

  // Both writers at once, each acting on its own half of the names.
  void RunBoth(const std::wstring& verb) {
    testsupport::ProgramRun runs[2];
    std::vector<std::thread> writers;
    for (int w = 0; w < 2; ++w) {
      writers.emplace_back([this, &runs, w, verb] { runs[w] = Act(verb, w * kEntriesPerWriter, (w + 1) * kEntriesPerWriter); });
    }
    for (auto& writer : writers) writer.join();
    for (const auto& run : runs) {
      EXPECT_EQ(run.exitCode, 0u) << Narrow(verb) << ": " << run.output.substr(0, 2000);
    }
  }

  static bool InRunKey(const std::wstring& name) { return testsupport::HasRegValue(HKEY_CURRENT_USER, kRunKey, name); }

  // How many entries are neither in their Run key nor in the store; how many are recorded.
  void Count(int& lost, int& recorded, int& fillers, int* stale = nullptr) const {
    std::multiset<std::string> stored;
    ASSERT_TRUE(StoredNames(storage_, stored)) << "the store parses";
    lost = recorded = 0;
    for (const auto& name : names_) {
      const bool inStore = stored.count(Narrow(name)) != 0;
      recorded += inStore ? 1 : 0;
      if (!inStore && !InRunKey(name)) ++lost;
    }
    const auto present = [&stored](const char* prefix, int n) {
      int found = 0;
      for (int i = 0; i < n; ++i) found += stored.count(prefix + std::to_string(i)) != 0 ? 1 : 0;
      return found;
    };
    fillers = present("LumeraFiller", kFillers);
    if (stale != nullptr) *stale = present("LumeraStale", kStale);
  }

  std::vector<std::wstring> names_;
  const std::wstring storage_ = testsupport::SpecialFolder(CSIDL_APPDATA) + L"\\Nexalon\\Lumera\\Storage.json";
  const std::wstring saved_ = storage_ + L".lumera-two-writers-saved";
  bool storageSaved_ = false;
};

TEST_F(TwoWriters, DisableThenEnableAtOnceLoseNoEntryOfALargeStore) {
  ASSERT_FALSE(testsupport::WineFlavourIsWin10()) << "below Windows 8 a disabled entry lives only in the store";
  int lost = 0;
  int recorded = 0;
  int fillers = 0;

  RunBoth(L"disable");
  Count(lost, recorded, fillers);
  EXPECT_EQ(lost, 0) << lost << " of " << names_.size() << " entries lost after both disabled theirs";
  EXPECT_EQ(recorded, static_cast<int>(names_.size())) << "every disabled entry is recorded once";
  EXPECT_EQ(fillers, kFillers) << "the records that were there before are all kept";

  RunBoth(L"enable");
  Count(lost, recorded, fillers);
  EXPECT_EQ(lost, 0) << lost << " of " << names_.size() << " entries lost after both enabled theirs";
  int back = 0;
  for (const auto& name : names_) back += InRunKey(name) ? 1 : 0;
  EXPECT_EQ(back, static_cast<int>(names_.size())) << "every entry is back in its Run key";
  EXPECT_EQ(recorded, 0) << "no record is left of an enabled entry";
  EXPECT_EQ(fillers, kFillers) << "the records that were there before are all kept";
}

// The service's read-back (here through startupctl report, which runs the module's own report)
// rewrites the store while a person disables entries: neither loses the other's change.
TEST_F(TwoWriters, TheReadBackBesideAWriterLosesNothing) {
  ASSERT_FALSE(testsupport::WineFlavourIsWin10()) << "below Windows 8 a disabled entry lives only in the store";
  testsupport::ProgramRun writer;
  std::thread disabling([&] { writer = Act(L"disable", 0, kEntriesPerWriter); });
  int reports = 0;
  do {
    (void)testsupport::RunBinProgram(L"startupctl.exe", L"report", kWriterTimeoutMs);  // 3: no central listens
    ++reports;
  } while (reports < 2);
  disabling.join();
  ASSERT_EQ(writer.exitCode, 0u) << writer.output.substr(0, 2000);
  int lost = 0, recorded = 0, fillers = 0, stale = 0;
  Count(lost, recorded, fillers, &stale);
  EXPECT_EQ(lost, 0) << lost << " entries lost beside " << reports << " read-backs";
  EXPECT_EQ(recorded, kEntriesPerWriter) << "every entry the writer disabled is recorded";
  EXPECT_EQ(fillers, kFillers) << "the read-back keeps every record whose program exists";
  EXPECT_EQ(stale, 0) << "the read-back took out the records whose program is gone";
  (void)Act(L"enable", 0, kEntriesPerWriter);
}

}  // namespace
