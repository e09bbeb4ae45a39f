// The startup report end to end, as a person drives it: entries made and changed with
// startupctl.exe, the report built and sent by "startupctl report", received and printed by
// lumeracentral.exe.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <map>

#include "central_process.h"
#include "picojson.h"
#include "report_files.h"
#include "startup/scratch.h"
#include "support/programs.h"
#include "support/test_thread.h"

namespace {

using testsupport::Narrow;

using testing_report::Fixture;
using testing_report::SetRun;

const std::vector<std::wstring> kRunNames = {L"LumeraE2ETray", L"LumeraE2ESync", L"LumeraE2ELater", L"LumeraE2EOwn"};
constexpr wchar_t kFolderEntry[] = L"LumeraE2ENameless.exe";

std::wstring SpecialFolder(int csidl) { return testsupport::SpecialFolder(csidl) + L"\\"; }

testsupport::ProgramRun Startupctl(const std::wstring& arguments) { return testsupport::RunBinProgram(L"startupctl.exe", arguments); }

TEST(StartupReportEndToEnd, StartupctlReportReachesTheCentralComponentWithEveryEntryButTheAgentsOwn) {
  testsupport::ScratchFolder apps;
  testsupport::ScratchFolder own;
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"full"), apps.file(L"Tray.exe")));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"german"), apps.file(L"Sync.exe")));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"fallback"), apps.file(L"Later.exe")));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"own"), own.file(L"Agent.exe")));

  // The agent's store under ProgramData, where hostconfig.dll points the module by default.
  const std::wstring agentRoot = SpecialFolder(CSIDL_COMMON_APPDATA) + L"Nexalon\\Lumera\\Agent\\";
  ASSERT_EQ(::SHCreateDirectoryExW(nullptr, agentRoot.c_str(), nullptr) == ERROR_SUCCESS ||
                ::GetFileAttributesW(agentRoot.c_str()) != INVALID_FILE_ATTRIBUTES,
            true);
  const std::wstring agentApp = agentRoot + L"LumeraE2E" + std::to_wstring(::GetCurrentProcessId());
  const std::wstring store = SpecialFolder(CSIDL_APPDATA) + L"Nexalon\\Lumera\\Storage.json";
  testing_report::UserStartupState cleanup(kRunNames, kFolderEntry, store, agentApp);
  ASSERT_TRUE(::CreateDirectoryW(agentApp.c_str(), nullptr));
  picojson::array ownPaths{picojson::value(Narrow(own.path()))};
  testsupport::WriteFileBytes(agentApp + L"\\app_paths", picojson::value(ownPaths).serialize());

  ASSERT_TRUE(SetRun(L"LumeraE2ETray", L"\"" + apps.file(L"Tray.exe") + L"\" --tray"));
  ASSERT_TRUE(SetRun(L"LumeraE2ESync", apps.file(L"Sync.exe")));
  ASSERT_TRUE(SetRun(L"LumeraE2ELater", apps.file(L"Later.exe")));
  ASSERT_TRUE(SetRun(L"LumeraE2EOwn", own.file(L"Agent.exe")));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"nocompany"), SpecialFolder(CSIDL_STARTUP) + kFolderEntry));
  ASSERT_EQ(Startupctl(L"disable LumeraE2ESync").exitCode, 0u);
  ASSERT_EQ(Startupctl(L"delay LumeraE2ELater").exitCode, 0u);

  // list shows the same application details the report is built from.
  const auto listed = Startupctl(L"list --json");
  ASSERT_EQ(listed.exitCode, 0u) << listed.output;
  picojson::value entries;
  ASSERT_TRUE(picojson::parse(entries, listed.output).empty()) << listed.output;
  bool sawTray = false;
  for (const auto& entry : entries.get<picojson::array>()) {
    if (entry.get("name").to_str() != "LumeraE2ETray") continue;
    sawTray = true;
    EXPECT_EQ(entry.get("description").to_str(), "Fixture Tray Helper");
    EXPECT_EQ(entry.get("company").to_str(), "Fixture Works Ltd");
    EXPECT_EQ(entry.get("product").to_str(), "Fixture Suite");
    EXPECT_EQ(entry.get("qid").to_str(), Narrow(testing_report::Sha256sumOf(L"full")));
    EXPECT_TRUE(entry.get("disabledBySystem").is<bool>());
  }
  EXPECT_TRUE(sawTray) << listed.output;

  const auto unsent = Startupctl(L"report");
  EXPECT_EQ(unsent.exitCode, 3u) << "no central component listens yet";
  EXPECT_NE(unsent.output.find("\"apps\":["), std::string::npos) << "the report is printed all the same";

  testsupport::ScratchFolder output;
  testing_report::Background central(L"--json --count 1 --out " + testsupport::Quoted(output.file(L"kept.jsonl")),
                                     output.file(L"central.txt"));
  ASSERT_TRUE(central.Started());
  ASSERT_TRUE(testing_report::PipeListening(testsupport::kLongWait));

  const auto sent = Startupctl(L"report --boot-time 42000");
  ASSERT_EQ(sent.exitCode, 0u) << sent.output;
  ASSERT_EQ(central.Wait(testsupport::kLongWait), 0u);
  const std::string kept = testsupport::ReadFileBytes(output.file(L"kept.jsonl"));
  ASSERT_FALSE(kept.empty());
  EXPECT_NE(sent.output.find(kept.substr(0, kept.size() - 1)), std::string::npos)
      << "startupctl prints exactly what the central component received";

  // What the report holds is checked in PluginStartupManager's tests; here, that startupctl's
  // changes, the default agent folder and the boot time given on its command line reach it.
  picojson::value report;
  ASSERT_TRUE(picojson::parse(report, kept).empty()) << kept;
  std::map<std::string, std::string> statusOf;
  for (const auto& app : report.get("apps").get<picojson::array>()) {
    statusOf[app.get("name").to_str()] = app.get("status").to_str();
  }
  EXPECT_EQ(statusOf["Fixture Tray Helper"], "enabled") << kept;
  EXPECT_EQ(statusOf["Deutsche Beschreibung"], "disabled") << kept;
  EXPECT_EQ(statusOf["Ansi Table Tool"], "delayed") << kept;
  EXPECT_EQ(statusOf.count("Nameless Updater"), 1u) << kept;
  EXPECT_EQ(statusOf.count("Own Suite Agent"), 0u) << "the agent's own installation folder is filtered out";
  EXPECT_EQ(report.get("boot_total_time").get<double>(), 42000);
}

}  // namespace
