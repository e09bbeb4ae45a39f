// startupctl.exe on a staged package: a Repository key, a package folder with its manifest
// and an executable carrying a version resource. Listed, disabled, delayed, enabled and
// reported on Windows 10; not there at all on Windows 7.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <string>

#include "picojson.h"
#include "support/programs.h"
#include "store_scratch.h"
#include "support/scratch_folder.h"

namespace {

using testsupport::Narrow;

constexpr char kTask[] = "LumeraStagedTerminalTask";

testsupport::ProgramRun RunTool(const std::wstring& arguments) { return testsupport::RunBinProgram(L"startupctl.exe", arguments); }

std::wstring StoragePath() { return testsupport::SpecialFolder(CSIDL_APPDATA) + L"\\Nexalon\\Lumera\\Storage.json"; }

class StoreStartupCtl : public ::testing::Test {
 protected:
  void SetUp() override {
    storageExisted_ = ::GetFileAttributesW(StoragePath().c_str()) != INVALID_FILE_ATTRIBUTES;
    ASSERT_TRUE(::CopyFileW((testsupport::ExeFolder() + L"store_fixture_app.exe").c_str(),
                            (package_.Folder() + L"\\StagedTerminal.exe").c_str(), FALSE));
    package_.WriteManifest(testing_store::Manifest(testing_store::Uap5Application("App", "StagedTerminal.exe", kTask)));
    entry_.Set(L"PackageRootFolder", package_.Folder());
  }
  void TearDown() override {
    if (!storageExisted_) ::DeleteFileW(StoragePath().c_str());
  }

  // The JSON listing's entry for the staged task; null when it is not listed.
  picojson::value Listed() const {
    const auto run = RunTool(L"list --json");
    picojson::value list;
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    if (!picojson::parse(list, run.output).empty() || !list.is<picojson::array>()) return picojson::value();
    for (const auto& entry : list.get<picojson::array>()) {
      if (entry.get("name").to_str() == kTask) return entry;
    }
    return picojson::value();
  }
  long long State() const { return package_.State(std::wstring(kTask, kTask + sizeof(kTask) - 1)); }

  testing_store::StagedPackage package_;
  testing_store::RepositoryEntry entry_{package_.FullName()};
  bool storageExisted_ = false;
};

TEST_F(StoreStartupCtl, ListsSwitchesAndReportsAStagedPackagesTask) {
  const std::wstring task(kTask, kTask + sizeof(kTask) - 1);
  if (!testsupport::WineFlavourIsWin10()) {
    EXPECT_TRUE(Listed().is<picojson::null>()) << "no Store tasks below Windows 8";
    EXPECT_EQ(RunTool(L"disable " + task).exitCode, static_cast<DWORD>(ERROR_NOT_FOUND));
    EXPECT_EQ(State(), -1);
    const auto run = RunTool(L"report");
    EXPECT_NE(run.output.find("\"apps\""), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("isStore"), std::string::npos) << run.output;
    return;
  }
  picojson::value entry = Listed();
  ASSERT_TRUE(entry.is<picojson::object>()) << "the staged task is listed";
  EXPECT_EQ(entry.get("kind").to_str(), "store");
  EXPECT_EQ(entry.get("package").to_str(), Narrow(package_.FullName()));
  EXPECT_EQ(entry.get("state").to_str(), "disabled") << "the manifest says Enabled=false and no State is kept";
  EXPECT_EQ(entry.get("command").to_str(), Narrow(package_.Folder() + L"\\StagedTerminal.exe"));
  EXPECT_EQ(entry.get("scope").to_str(), "user");

  auto run = RunTool(L"enable " + task);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_EQ(State(), 2);
  EXPECT_EQ(Listed().get("state").to_str(), "enabled");

  run = RunTool(L"disable " + task);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_EQ(State(), 1);
  entry = Listed();
  EXPECT_EQ(entry.get("state").to_str(), "disabled");
  EXPECT_EQ(entry.get("package").to_str(), Narrow(package_.FullName())) << "still one entry, merged with its stored record";

  run = RunTool(L"delay " + task);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_EQ(State(), 1) << "a delayed task is marked as a disabled one";
  EXPECT_EQ(Listed().get("state").to_str(), "delayed");

  run = RunTool(L"enable " + task);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_EQ(State(), 2);
  EXPECT_EQ(Listed().get("state").to_str(), "enabled") << "no stored record left behind";
  // Without a central component the report is still built and printed.
  run = RunTool(L"report");
  picojson::value report;
  std::string error;
  picojson::parse(report, run.output.begin(), run.output.end(), &error);
  ASSERT_TRUE(error.empty() && report.get("apps").is<picojson::array>()) << run.output;
  const picojson::value* app = nullptr;
  for (const auto& each : report.get("apps").get<picojson::array>()) {
    if (each.get("name").to_str() == "Example Terminal") app = &each;
  }
  ASSERT_NE(app, nullptr) << "named as its package presents itself: " << run.output;
  EXPECT_EQ(app->get("owner").to_str(), "Example Corporation");
  EXPECT_TRUE(app->get("isStore").is<bool>() && app->get("isStore").get<bool>());
  EXPECT_EQ(app->get("status").to_str(), "enabled");
}

}  // namespace
