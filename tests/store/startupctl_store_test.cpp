// startupctl.exe on a staged package: a Repository key, a package folder with its manifest
// and an executable carrying a version resource. Listed, disabled, delayed, enabled and
// reported on Windows 10; not there at all on Windows 7.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/unique_handle.h"
#include "picojson.h"
#include "support/programs.h"
#include "store_scratch.h"
#include "support/scratch_folder.h"

namespace {

using testsupport::Narrow;

constexpr wchar_t kPackages[] =
    L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\Repository\\Packages";
constexpr wchar_t kSystemAppData[] =
    L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData";
constexpr char kTask[] = "LumeraStagedTerminalTask";

testsupport::ProgramRun RunTool(const std::wstring& arguments) { return testsupport::RunBinProgram(L"startupctl.exe", arguments); }

std::wstring StoragePath() { return testsupport::SpecialFolder(CSIDL_APPDATA) + L"\\Nexalon\\Lumera\\Storage.json"; }

class StoreStartupCtl : public ::testing::Test {
 protected:
  void SetUp() override {
    storageExisted_ = ::GetFileAttributesW(StoragePath().c_str()) != INVALID_FILE_ATTRIBUTES;
    const std::wstring suffix = std::to_wstring(::GetCurrentProcessId());
    name_ = L"LumeraStaged" + suffix;
    fullName_ = name_ + L"_1.21.0.0_x64__8wekyb3d8bbwe";
    family_ = name_ + L"_8wekyb3d8bbwe";
    folder_ = package_.path().substr(0, package_.path().size() - 1);
    ASSERT_TRUE(::CopyFileW((testsupport::ExeFolder() + L"store_fixture_app.exe").c_str(),
                            package_.file(L"StagedTerminal.exe").c_str(), FALSE));
    std::ofstream(std::filesystem::path(package_.file(L"AppxManifest.xml")), std::ios::binary)
        << "<Package xmlns=\"http://schemas.microsoft.com/appx/manifest/foundation/windows10\"\n"
           "  xmlns:uap5=\"http://schemas.microsoft.com/appx/manifest/uap/windows10/5\">\n"
           "  <Properties><DisplayName>Staged Terminal</DisplayName>\n"
           "    <PublisherDisplayName>Staged Publisher</PublisherDisplayName></Properties>\n"
           "  <Applications>\n"
           "    <Application Id=\"App\" Executable=\"StagedTerminal.exe\" EntryPoint=\"Windows.FullTrustApplication\">\n"
           "      <Extensions><uap5:Extension Category=\"windows.startupTask\">\n"
           "        <uap5:StartupTask TaskId=\"" << kTask << "\" Enabled=\"false\" DisplayName=\"Staged\"/>\n"
           "      </uap5:Extension></Extensions>\n"
           "    </Application>\n"
           "  </Applications>\n"
           "</Package>\n";
    const std::wstring key = testing_store::UserClasses(kPackages) + L"\\" + fullName_;
    ASSERT_EQ(testsupport::SetRegText(HKEY_USERS, key, L"PackageRootFolder", folder_), ERROR_SUCCESS);
  }
  void TearDown() override {
    ::RegDeleteTreeW(HKEY_USERS, (testing_store::UserClasses(kPackages) + L"\\" + fullName_).c_str());
    ::RegDeleteTreeW(HKEY_USERS, (testing_store::UserClasses(kSystemAppData) + L"\\" + family_).c_str());
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

  long long State() const {
    DWORD value = 0;
    DWORD bytes = sizeof(value);
    const std::wstring key = testing_store::UserClasses(kSystemAppData) + L"\\" + family_ + L"\\" + std::wstring(kTask, kTask + sizeof(kTask) - 1);
    if (::RegGetValueW(HKEY_USERS, key.c_str(), L"State", RRF_RT_REG_DWORD, nullptr, &value, &bytes)) return -1;
    return value;
  }

  testsupport::ScratchFolder package_;
  std::wstring name_, fullName_, family_, folder_;
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
  EXPECT_EQ(entry.get("package").to_str(), Narrow(fullName_));
  EXPECT_EQ(entry.get("state").to_str(), "disabled") << "the manifest says Enabled=false and no State is kept";
  EXPECT_EQ(entry.get("command").to_str(), Narrow(folder_ + L"\\StagedTerminal.exe"));
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
  EXPECT_EQ(entry.get("package").to_str(), Narrow(fullName_)) << "still one entry, merged with its stored record";

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
    if (each.get("name").to_str() == "Staged Terminal") app = &each;
  }
  ASSERT_NE(app, nullptr) << "named as its package presents itself: " << run.output;
  EXPECT_EQ(app->get("owner").to_str(), "Staged Publisher");
  EXPECT_TRUE(app->get("isStore").is<bool>() && app->get("isStore").get<bool>());
  EXPECT_EQ(app->get("status").to_str(), "enabled");
}

}  // namespace
