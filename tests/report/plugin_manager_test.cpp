// A whole build of boottime::CPluginStartupManager against the prefix's real user Run key,
// user Startup folder and backup store, reported to a stand-in central component.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cwctype>
#include <map>

#include "agent_fixture.h"
#include "plugin/plugin_startup_manager.h"
#include "central_server.h"
#include "common/windows_version.h"
#include "picojson.h"
#include "report_files.h"
#include "startup/action_exec.h"
#include "startup/scratch.h"
#include "startup/startup_items.h"
#include "support/captured_log.h"
#include "support/programs.h"

namespace {

using testsupport::Narrow;

using testing_report::CentralServer;
using testing_report::Fixture;
using testing_report::kRunKey;
using testing_report::SetRun;

const std::vector<std::wstring> kRunNames = {L"LumeraRptTray", L"LumeraRptSync", L"LumeraRptLater", L"LumeraRptGone",
                                        L"LumeraRptOwn", L"LumeraRptPlain"};
constexpr wchar_t kFolderEntry[] = L"LumeraRptNameless.exe";

std::wstring UserStartupFolder() { return testsupport::SpecialFolder(CSIDL_STARTUP) + L"\\"; }

std::wstring Upper(std::wstring text) {
  for (auto& c : text) c = static_cast<wchar_t>(std::towupper(c));
  return text;
}

// A store that holds boot times only, by program path.
std::string BootTimes(const std::map<std::wstring, double>& times) {
  picojson::array records;
  for (const auto& [path, time] : times) {
    records.emplace_back(picojson::object{{"path", picojson::value(Narrow(path))}, {"time", picojson::value(time)}});
  }
  return picojson::value(picojson::object{{"boot_time", picojson::value(records)}}).serialize();
}

// The user Run key's item of that name, as the manager's own sources list it.
startup::StartupItemPtr RunItem(const std::wstring& name) {
  return testing_startup::Named(testing_startup::Enumerate(startup::CStartupItems().RunKeySources()), name);
}

TEST(PluginStartupManager, ReportsEveryReportableEntryWithOwnerStatusIdentityAndBootTime) {
  testsupport::ScratchFolder apps;
  testsupport::ScratchFolder own;
  const std::wstring tray = apps.file(L"Tray.exe"), sync = apps.file(L"Sync.exe"), later = apps.file(L"Later.exe"),
                     gone = apps.file(L"Gone.exe"), plain = apps.file(L"Plain.exe"), ownExe = own.file(L"Own.exe");
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"full"), tray));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"german"), sync));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"fallback"), later));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"nocompany"), gone));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"plain"), plain));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"full"), ownExe));

  testing_report::AgentStore agent;
  picojson::array ownPaths{picojson::value(Narrow(own.path().substr(0, own.path().size() - 1)))};
  agent.SetAppPaths(L"OwnSuite", picojson::value(ownPaths).serialize());
  testing_report::FakeProductInfo info(agent.Path());

  CentralServer central;
  ASSERT_TRUE(central.Listening());
  testsupport::CapturedLog log;
  boottime::CPluginStartupManager manager([&] { return static_cast<IProductInfo*>(&info); });
  ASSERT_TRUE(manager.Init());
  ASSERT_TRUE(manager.Connected());
  const std::wstring storePath = manager.StorageFolder() + L"Storage.json";
  testing_report::UserStartupState restore(kRunNames, kFolderEntry, storePath);

  // The store starts with boot times only; the actions add their records to it.
  testsupport::WriteFileBytes(storePath, BootTimes({{Upper(tray), 1500}, {later, 700}}));

  ASSERT_TRUE(SetRun(L"LumeraRptTray", L"\"" + tray + L"\" /min"));
  ASSERT_TRUE(SetRun(L"LumeraRptSync", sync));
  ASSERT_TRUE(SetRun(L"LumeraRptLater", later));
  ASSERT_TRUE(SetRun(L"LumeraRptGone", gone));
  ASSERT_TRUE(SetRun(L"LumeraRptOwn", ownExe));
  ASSERT_TRUE(SetRun(L"LumeraRptPlain", plain));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"nocompany"), UserStartupFolder() + kFolderEntry));

  startup::StartupAppsActionExec exec;
  startup::IStartupAppsActions* runActions = exec.Find(startup::kSourceRunKey);
  ASSERT_NE(runActions, nullptr);
  ASSERT_EQ(runActions->Disable({RunItem(L"LumeraRptSync"), RunItem(L"LumeraRptGone")}, true), 0);
  ASSERT_EQ(runActions->Delay({RunItem(L"LumeraRptLater")}, true), 0);
  // The user takes the disabled Gone entry away: its value from Windows 8 on (it stays in
  // place there), its program below (the value is already gone).
  if (ky::IsWindows8OrGreater()) {
    ASSERT_EQ(::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, L"LumeraRptGone"), ERROR_SUCCESS);
  } else {
    ASSERT_TRUE(::DeleteFileW(gone.c_str()));
  }
  ASSERT_NE(testsupport::ReadFileBytes(storePath).find("LumeraRptGone"), std::string::npos);

  manager.SetBootTime(42000);
  ASSERT_EQ(manager.BuildAndReport(), 0u);
  testing_report::ReceivedMessage message;
  ASSERT_TRUE(central.Take(startup::kMsgReport, message));
  picojson::value report;
  ASSERT_TRUE(picojson::parse(report, message.payload.c_str()).empty());

  std::map<std::string, picojson::value> byName;
  double enabledTotal = 0, optimizedTotal = 0;
  for (const auto& app : report.get("apps").get<picojson::array>()) {
    byName[app.get("name").to_str()] = app;
    (app.get("status").to_str() == "enabled" ? enabledTotal : optimizedTotal) += app.get("time").get<double>();
  }
  ASSERT_TRUE(byName.count("Fixture Tray Helper")) << message.payload;
  const auto& trayApp = byName["Fixture Tray Helper"];
  EXPECT_EQ(trayApp.get("owner").to_str(), "Fixture Works Ltd");
  EXPECT_EQ(trayApp.get("status").to_str(), "enabled");
  EXPECT_EQ(trayApp.get("time").get<double>(), 1500) << "boot times match paths without regard to case\n"
                                                     << testsupport::ReadFileBytes(storePath) << "\n" << message.payload;
  EXPECT_EQ(trayApp.get("qid").to_str(), Narrow(testing_report::Sha256sumOf(L"full")));
  EXPECT_EQ(byName["Deutsche Beschreibung"].get("status").to_str(), "disabled");
  EXPECT_EQ(byName["Ansi Table Tool"].get("status").to_str(), "delayed");
  EXPECT_EQ(byName["Ansi Table Tool"].get("time").get<double>(), 700);
  ASSERT_TRUE(byName.count("Nameless Updater")) << "the Startup-folder program";
  EXPECT_EQ(byName["Nameless Updater"].get("owner").to_str(), "");
  EXPECT_EQ(report.get("boot_total_time").get<double>(), 42000);
  EXPECT_EQ(report.get("apps_total_time").get<double>(), enabledTotal);
  EXPECT_EQ(report.get("optimized_total_time").get<double>(), optimizedTotal);
  EXPECT_GE(optimizedTotal, 700);

  EXPECT_EQ(message.payload.find("Gone"), std::string::npos);
  EXPECT_EQ(message.payload.find("Plain"), std::string::npos);
  EXPECT_EQ(log.count(L"remove " + ownExe), 1u) << "the agent's own installation folder is filtered";
  EXPECT_EQ(log.count(L"FAILED get file info for " + plain), 1u);
  const std::string store = testsupport::ReadFileBytes(storePath);
  EXPECT_EQ(store.find("LumeraRptGone"), std::string::npos) << "the stale record left the store";
  EXPECT_NE(store.find("LumeraRptSync"), std::string::npos);
}

// The Startup folder's own name differs in case between Windows' and Wine's folder APIs and
// the image paths of the processes started from it; two instances of one program both count.
TEST(PluginStartupManager, AppsTakeTheProcessorTimeOfTheBootsProcessesOfTheirFile) {
  testsupport::ScratchFolder apps;
  const std::wstring tray = apps.file(L"Tray.exe");
  const std::wstring folderProgram = UserStartupFolder() + kFolderEntry;
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"full"), tray));
  CentralServer central;
  boottime::CPluginStartupManager manager([] { return static_cast<IProductInfo*>(nullptr); });
  ASSERT_TRUE(manager.Init());
  const std::wstring storePath = manager.StorageFolder() + L"Storage.json";
  testing_report::UserStartupState restore(kRunNames, kFolderEntry, storePath);
  testsupport::WriteFileBytes(storePath, BootTimes({{tray, 9999}}));
  ASSERT_TRUE(SetRun(L"LumeraRptTray", L"\"" + tray + L"\" /min"));
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"nocompany"), folderProgram));

  const auto process = [](std::uint64_t pid, std::wstring image, std::uint32_t kernel, std::uint32_t user) {
    boottime::ProcessImpact impact;
    impact.pid = pid;
    impact.name = std::move(image);
    impact.kernel = kernel;
    impact.user = user;
    return impact;
  };
  manager.SetBootImpacts({process(8, L"C:\\windows\\system32\\explorer.exe", 600, 400), process(12, Upper(tray), 100, 400),
                          process(16, tray, 50, 950), process(20, Upper(folderProgram), 20, 300)});
  (void)manager.BuildAndReport();

  picojson::value report;
  ASSERT_TRUE(picojson::parse(report, manager.LastReport()).empty()) << manager.LastReport();
  std::map<std::string, double> times;
  for (const auto& app : report.get("apps").get<picojson::array>()) times[app.get("name").to_str()] = app.get("time").get<double>();
  EXPECT_EQ(times["Fixture Tray Helper"], 1500) << "measured in this boot, ahead of the store's record\n" << manager.LastReport();
  EXPECT_EQ(times["Nameless Updater"], 320) << manager.LastReport();
  EXPECT_EQ(report.get("apps_total_time").get<double>(), 1820);
}

TEST(PluginStartupManager, WithoutPipelinkTheBuildRunsAndNothingIsSent) {
  testsupport::CapturedLog log;
  boottime::CPluginStartupManager manager([] { return static_cast<IProductInfo*>(nullptr); },
                                          L"C:\\no-such-folder-lumera\\pipelink.dll");
  ASSERT_TRUE(manager.Init());
  EXPECT_EQ(log.count(L"Could not load pipelink.dll"), 1u);
  EXPECT_EQ(manager.SendUpdateListRequest(), 31u);
  EXPECT_EQ(manager.BuildAndReport(), 31u);
  EXPECT_EQ(log.count(L"Report JSON: {\"apps\":"), 1u) << "built and logged, not posted";
  EXPECT_EQ(log.count(L"Could not post report message"), 0u);
}

}  // namespace
