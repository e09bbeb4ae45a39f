// startupctl.exe end to end, against the prefix's real user Run key and Startup folder.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "picojson.h"
#include "support/programs.h"
#include "support/registry_values.h"

namespace {

using testsupport::Narrow;

using testsupport::Exists;
using testsupport::kApprovedFolder;
using testsupport::kApprovedRun;
using testsupport::kRunKey;
using testsupport::SpecialFolder;

testsupport::ProgramRun RunTool(const std::wstring& arguments) { return testsupport::RunBinProgram(L"startupctl.exe", arguments); }

// The state the JSON listing gives the named entry; empty when it is not listed.
std::string StateOf(const std::wstring& name) {
  const auto run = RunTool(L"list --json");
  picojson::value list;
  if (run.exitCode != 0 || !picojson::parse(list, run.output).empty() || !list.is<picojson::array>()) return "bad";
  for (const auto& entry : list.get<picojson::array>()) {
    if (entry.get("name").to_str() == Narrow(name)) return entry.get("state").to_str();
  }
  return "";
}

int Approved(const wchar_t* key, const std::wstring& name) {
  return testsupport::ApprovedFirstByte(HKEY_CURRENT_USER, key, name);
}

class StartupCtl : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(testsupport::SetRegText(HKEY_CURRENT_USER, kRunKey, value_, L"%windir%\\notepad.exe /lumera", REG_EXPAND_SZ),
              ERROR_SUCCESS);
    std::filesystem::create_directories(std::filesystem::path(folder_));
    std::ofstream(std::filesystem::path(folder_ + file_)) << "@echo off\r\n";
    storageExisted_ = Exists(storage_);
  }
  void TearDown() override {
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, value_.c_str());
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kApprovedRun, value_.c_str());
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kApprovedFolder, file_.c_str());
    ::DeleteFileW((folder_ + file_).c_str());
    ::DeleteFileW((folder_ + L"KyBkpFolder\\" + file_).c_str());
    if (!storageExisted_) ::DeleteFileW(storage_.c_str());
  }

  const std::wstring suffix_ = std::to_wstring(::GetCurrentProcessId());
  const std::wstring value_ = L"LumeraCtlTest" + suffix_;
  const std::wstring file_ = L"lumera-ctl-" + suffix_ + L".bat";
  const std::wstring folder_ = SpecialFolder(CSIDL_STARTUP) + L"\\";
  const std::wstring storage_ = SpecialFolder(CSIDL_APPDATA) + L"\\Nexalon\\Lumera\\Storage.json";
  bool storageExisted_ = false;

  // The type of the test's Run value; 0 when it is missing.
  DWORD RunValueType() const {
    DWORD type = 0;
    return ::RegGetValueW(HKEY_CURRENT_USER, kRunKey, value_.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &type, nullptr,
                          nullptr) == ERROR_SUCCESS ? type : 0;
  }
};

TEST_F(StartupCtl, ListsDisablesDelaysAndEnablesARunValue) {
  const auto list = RunTool(L"list");
  ASSERT_EQ(list.exitCode, 0u) << list.output;
  EXPECT_NE(list.output.find(Narrow(value_) + "\trun\tuser\tenabled\t"), std::string::npos) << list.output;
  EXPECT_NE(list.output.find(Narrow(file_) + "\tfolder\tuser\tenabled\t"), std::string::npos) << list.output;

  auto run = RunTool(L"disable " + value_);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_NE(run.output.find("enabled -> disabled"), std::string::npos) << run.output;
  EXPECT_EQ(StateOf(value_), "disabled");
  EXPECT_EQ(RunValueType() != 0, testsupport::WineFlavourIsWin10()) << "win10 keeps the value in place, win7 deletes it";
  EXPECT_EQ(Approved(kApprovedRun, value_), testsupport::WineFlavourIsWin10() ? 1 : -1) << "only win10 marks it in StartupApproved";

  ASSERT_EQ(RunTool(L"delay " + value_).exitCode, 0u);
  EXPECT_EQ(StateOf(value_), "delayed");

  ASSERT_EQ(RunTool(L"enable " + value_).exitCode, 0u);
  EXPECT_EQ(StateOf(value_), "enabled");
  EXPECT_EQ(RunValueType(), static_cast<DWORD>(testsupport::WineFlavourIsWin10() ? REG_EXPAND_SZ : REG_SZ));
  EXPECT_EQ(Approved(kApprovedRun, value_), testsupport::WineFlavourIsWin10() ? 0 : -1);
}

TEST_F(StartupCtl, DisablesAndEnablesAStartupFolderFile) {
  const std::wstring location = folder_.substr(0, folder_.size() - 1);
  ASSERT_EQ(RunTool(L"disable " + file_ + L" --location " + testsupport::Quoted(location)).exitCode, 0u);
  EXPECT_EQ(StateOf(file_), "disabled");
  EXPECT_EQ(Exists(folder_ + file_), testsupport::WineFlavourIsWin10()) << "win10 leaves the file, win7 moves it to the backup folder";
  EXPECT_TRUE(testsupport::WineFlavourIsWin10() ? Approved(kApprovedFolder, file_) == 1 : Exists(folder_ + L"KyBkpFolder\\" + file_))
      << "win10 marks it in StartupApproved, win7 keeps it in the backup folder";

  ASSERT_EQ(RunTool(L"enable " + file_).exitCode, 0u);
  EXPECT_TRUE(Exists(folder_ + file_));
  EXPECT_EQ(StateOf(file_), "enabled");
}

TEST_F(StartupCtl, AChangeWhoseRecordCannotBeWrittenIsUndoneAndReported) {
  const std::wstring saved = storage_ + L".lumera-test-saved";
  if (storageExisted_) {
    ASSERT_TRUE(::MoveFileExW(storage_.c_str(), saved.c_str(), MOVEFILE_REPLACE_EXISTING));
  }
  ASSERT_TRUE(::CreateDirectoryW(storage_.c_str(), nullptr)) << "the store path is a folder";
  const std::wstring location = folder_.substr(0, folder_.size() - 1);
  const struct {
    std::wstring args;
    std::wstring name;
  } changes[] = {
      {L"disable " + value_, value_},
      {L"delay " + value_, value_},
      {L"disable " + file_ + L" --location " + testsupport::Quoted(location), file_},
  };
  for (const auto& change : changes) {
    const auto run = RunTool(change.args);
    EXPECT_EQ(run.exitCode, 31u) << Narrow(change.args) << "\n" << run.output;
    EXPECT_NE(run.output.find("failed"), std::string::npos) << run.output;
    EXPECT_EQ(StateOf(change.name), "enabled") << Narrow(change.args);
  }
  EXPECT_NE(RunValueType(), 0u) << "the Run value is back";
  EXPECT_TRUE(Exists(folder_ + file_)) << "the file is back in the Startup folder";
  EXPECT_NE(Approved(kApprovedRun, value_), 1);
  EXPECT_NE(Approved(kApprovedFolder, file_), 1);
  ::RemoveDirectoryW(storage_.c_str());
  if (storageExisted_) ::MoveFileExW(saved.c_str(), storage_.c_str(), MOVEFILE_REPLACE_EXISTING);
}

TEST_F(StartupCtl, FailsWithACodeForUnknownEntriesAndBadArguments) {
  EXPECT_EQ(RunTool(L"disable NoSuchEntryLumera").exitCode, static_cast<DWORD>(ERROR_NOT_FOUND));
  EXPECT_EQ(RunTool(L"disable " + value_ + L" --location HKEY_LOCAL_MACHINE\\Nowhere").exitCode,
            static_cast<DWORD>(ERROR_NOT_FOUND));
  EXPECT_EQ(RunTool(L"frobnicate").exitCode, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(RunTool(L"").exitCode, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  const auto again = RunTool(L"enable " + value_);
  EXPECT_EQ(again.exitCode, 0u);
  EXPECT_NE(again.output.find("already enabled"), std::string::npos) << again.output;
}

}  // namespace
