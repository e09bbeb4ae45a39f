// lumeracentral.exe as a person runs it: its command line, and a run that answers an update
// request with an app list and prints the reports a startup manager posts.
#include <gtest/gtest.h>

#include <windows.h>

#include "central_process.h"
#include "central_server.h"
#include "picojson.h"
#include "report_files.h"
#include "support/programs.h"
#include "support/test_thread.h"

namespace {

using testing_report::Background;
using testing_report::CentralTool;
using testing_report::PipeListening;

startup::StartupItemExPtr App(const wchar_t* name, std::int32_t status, std::uint32_t time) {
  return testing_report::App(name, status, time, L"Maker Ltd",
                             L"0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
}

TEST(CentralTool, CommandLineHelpAndFailures) {
  const auto help = testsupport::RunProgram(CentralTool() + L" --help");
  EXPECT_EQ(help.exitCode, 0u);
  EXPECT_NE(help.output.find("--apps FILE"), std::string::npos);
  EXPECT_NE(help.output.find("Exit codes"), std::string::npos);

  const auto bad = testsupport::RunProgram(CentralTool() + L" --count 0");
  EXPECT_EQ(bad.exitCode, 2u);
  EXPECT_NE(bad.output.find("--count needs a number"), std::string::npos);
  EXPECT_EQ(testsupport::RunProgram(CentralTool() + L" --bogus").exitCode, 2u);
  EXPECT_EQ(testsupport::RunProgram(CentralTool() + L" --count").exitCode, 2u);
  EXPECT_EQ(testsupport::RunProgram(CentralTool() + L" --apps C:\\no-such-folder-lumera\\apps.json").exitCode, 1u);
}

TEST(CentralTool, AnswersAnUpdateRequestAndPrintsEachReportUntilTheCount) {
  testsupport::ScratchFolder folder;
  const std::wstring apps = testsupport::WriteFileBytes(
      folder.file(L"apps.json"), R"({"apps":[{"name":"Tray","owner":"Maker","qid":"ab","status":"disabled"}]})");
  Background central(L"--count 2 --out " + testsupport::Quoted(folder.file(L"reports.jsonl")) + L" --apps " +
                         testsupport::Quoted(apps),
                     folder.file(L"stdout.txt"));
  ASSERT_TRUE(central.Started());
  ASSERT_TRUE(PipeListening(testsupport::kLongWait));

  testing_pipelink::Library library;
  ASSERT_TRUE(library.Ready());
  testing_report::ListManager manager(library.Client());
  ASSERT_TRUE(manager.Init());
  ASSERT_TRUE(manager.Connected());
  ASSERT_EQ(manager.SendUpdateListRequest(), 0u);
  startup::AppList list;
  ASSERT_TRUE(manager.NextList(list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]->name, L"Tray");

  manager.toReport = {App(L"Tray Helper", startup::kStatusEnabled, 1200), App(L"Sync", startup::kStatusDelayed, 300)};
  ASSERT_EQ(manager.BuildAndReport(), 0u);
  manager.toReport = {};
  ASSERT_EQ(manager.BuildAndReport(), 0u);
  EXPECT_EQ(central.Wait(testsupport::kLongWait), 0u);

  const std::string printed = testsupport::ReadFileBytes(folder.file(L"stdout.txt"));
  EXPECT_NE(printed.find("update request: app list sent"), std::string::npos) << printed;
  EXPECT_NE(printed.find("Tray Helper"), std::string::npos) << printed;
  EXPECT_NE(printed.find("Maker Ltd"), std::string::npos);
  EXPECT_NE(printed.find("delayed"), std::string::npos);
  EXPECT_NE(printed.find("boot 0 ms, apps 1200 ms, optimized 300 ms"), std::string::npos) << printed;
  EXPECT_NE(printed.find("report 2: 0 apps"), std::string::npos);

  const std::string kept = testsupport::ReadFileBytes(folder.file(L"reports.jsonl"));
  const std::size_t newline = kept.find('\n');
  ASSERT_NE(newline, std::string::npos);
  picojson::value first;
  ASSERT_TRUE(picojson::parse(first, kept.substr(0, newline)).empty()) << kept;
  EXPECT_EQ(first.get("apps").get<picojson::array>().size(), 2u);
  EXPECT_EQ(kept.substr(newline + 1), manager.LastReport() + "\n") << "the second report, as received";
}

}  // namespace
