// The startup manager and the central component over a real "RemoteDispatcherPipe": the app
// list it receives, the reports it posts, and a whole build from the prefix's real Run key,
// Startup folder and backup store.
#include <gtest/gtest.h>

#include <windows.h>

#include "central_server.h"
#include "picojson.h"
#include "report_files.h"
#include "startup/startup_manager.h"
#include "support/captured_log.h"

namespace {

using startup::AppList;
using startup::kStatusDelayed;
using startup::kStatusDisabled;
using startup::kStatusEnabled;
using testing_report::App;
using testing_report::CentralServer;
using testing_report::ListManager;
using testing_report::ReceivedMessage;

picojson::value Parse(const std::string& text) {
  picojson::value value;
  const std::string error = picojson::parse(value, text);
  EXPECT_TRUE(error.empty()) << error << " in " << text;
  return value;
}

TEST(CentralMessages, ReportCarriesEveryAppInOrderAndTotalsByStatus) {
  startup::AppList apps = {App(L"B", kStatusEnabled, 300), App(L"A", kStatusDisabled, 200),
                           App(L"C", kStatusDelayed, 50), App(L"D", kStatusEnabled, 7)};
  const picojson::value report = Parse(startup::BuildReportJson(apps, 41000));
  const auto& list = report.get("apps").get<picojson::array>();
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[0].get("name").to_str(), "B");
  EXPECT_EQ(list[1].get("status").to_str(), "disabled");
  EXPECT_EQ(list[2].get("status").to_str(), "delayed");
  EXPECT_EQ(list[3].get("owner").to_str(), "Owner");
  EXPECT_EQ(list[0].get("time").get<double>(), 300);
  EXPECT_EQ(report.get("boot_total_time").get<double>(), 41000);
  EXPECT_EQ(report.get("apps_total_time").get<double>(), 307);
  EXPECT_EQ(report.get("optimized_total_time").get<double>(), 250);

  boottime::ProcessImpact process;
  process.name = L"C:\\x.exe";
  process.ppid = 4;
  process.pid = 88;
  process.kernel = 1;
  process.user = 2;
  process.read = 3;
  process.write = 4;
  process.other = 5;
  const picojson::value impact = Parse(startup::BuildImpactReportJson({process}));
  const auto& record = impact.get("processes").get<picojson::array>().at(0);
  for (const char* key : {"name", "ppid", "kernel", "user", "read", "write", "other", "debug"}) {
    EXPECT_TRUE(record.contains(key)) << key;
  }
  EXPECT_EQ(record.get("write").get<double>(), 4);
}

TEST(CentralMessages, AppListSkipsIncompleteAppsAndAnUnknownStatusRepeatsThePreviousOne) {
  testsupport::CapturedLog log;
  AppList list;
  ASSERT_EQ(startup::BuildAppList(R"({"apps":[
      {"name":"Late","owner":"O","qid":"1","status":"bogus"},
      {"name":"A","owner":"O","qid":"1","status":"delayed"},
      {"name":"B","owner":"O","qid":"2","status":"Enabled"},
      {"name":"C","owner":"O","status":"enabled"},
      {"owner":"O","qid":"3","status":"enabled"},
      {"name":"D","qid":"3","status":"enabled"},
      {"name":"E","owner":"O","qid":"4"},
      7,
      {"name":"F","owner":"O","qid":"5","status":"disabled"}]})", list),
            0u);
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[0]->status, kStatusEnabled) << "the first app has nothing before it";
  EXPECT_EQ(list[1]->status, kStatusDelayed);
  EXPECT_EQ(list[2]->name, L"B");
  EXPECT_EQ(list[2]->status, kStatusDelayed) << "words are case-sensitive; the status carries over";
  EXPECT_EQ(list[3]->name, L"F");
  EXPECT_EQ(log.count(L"Unrecognized startup status: Enabled. Using default."), 1u);
  EXPECT_EQ(log.count(L"App object doesn't have a QID."), 1u);
  EXPECT_EQ(log.count(L"App object doesn't have a name."), 2u) << "a number is no app object";
  EXPECT_EQ(log.count(L"App object doesn't have an owner."), 1u);
  EXPECT_EQ(log.count(L"App object doesn't have status."), 1u);

  EXPECT_NE(startup::BuildAppList(R"({"list":[]})", list), 0u);
  EXPECT_NE(startup::BuildAppList(R"([1,2])", list), 0u);
  EXPECT_EQ(log.count(L"The JSON does not contain an app list."), 2u);
  EXPECT_NE(startup::BuildAppList(R"({"apps":[)", list), 0u);
  EXPECT_EQ(log.count(L"Could not parse JSON. String received: {\"apps\":[. Error string: "), 1u);
  EXPECT_NE(startup::BuildAppList("{\"apps\":" + std::string(20, '[') + std::string(20, ']') + "}", list), 0u)
      << "nesting is bounded";
  EXPECT_NE(startup::BuildAppList(std::string(startup::kMaxAppListBytes + 1, ' '), list), 0u) << "so is the length";
  EXPECT_EQ(log.count(L"Error string: longer than"), 1u);
}

TEST(StartupManagerPipe, UpdateRequestAppListAndReportTravelOverTheDispatcherPipe) {
  CentralServer central;
  ASSERT_TRUE(central.Listening());
  testsupport::CapturedLog log;
  ListManager manager(central.Client());
  ASSERT_TRUE(manager.Init());
  ASSERT_TRUE(manager.Connected());

  ASSERT_EQ(manager.SendUpdateListRequest(), 0u);
  ReceivedMessage request;
  ASSERT_TRUE(central.Take(startup::kMsgUpdateRequest, request));
  EXPECT_TRUE(request.payload.empty());

  // No terminator: the last byte is given up, here a stray "X".
  ASSERT_EQ(central.PostAppList(R"({"apps":[{"name":"A","owner":"O","qid":"1","status":"disabled"},)"
                                R"({"name":"B","owner":"O","qid":"2","status":"what"}]}X)"),
            0u);
  AppList list;
  ASSERT_TRUE(manager.NextList(list));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1]->status, kStatusDisabled);

  // Here the closing brace is the byte given up, so the text no longer parses.
  ASSERT_EQ(central.PostAppList(R"({"apps":[]})"), 0u);
  ASSERT_EQ(central.PostAppList(std::string(R"({"apps":[{"name":"C","owner":"O","qid":"3","status":"delayed"}]})") +
                                '\0'),
            0u);
  ASSERT_TRUE(manager.NextList(list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]->name, L"C");
  EXPECT_EQ(log.count(L"Could not parse JSON. String received: {\"apps\":[]."), 1u);

  manager.toReport = {App(L"Tray", kStatusEnabled, 120)};
  ASSERT_EQ(manager.BuildAndReport(), 0u);
  ReceivedMessage report;
  ASSERT_TRUE(central.Take(startup::kMsgReport, report));
  ASSERT_FALSE(report.payload.empty());
  EXPECT_EQ(report.payload.back(), '\0') << "the terminator is counted in the length";
  EXPECT_EQ(report.payload.c_str(), manager.LastReport());
  EXPECT_EQ(Parse(report.payload.c_str()).get("apps_total_time").get<double>(), 120);
  EXPECT_EQ(log.count(L"Report JSON: {\"apps\":[{\"name\":\"Tray\""), 1u);
}

TEST(StartupManagerPipe, WithoutAConnectionNothingIsSentAndRequestsFail) {
  testsupport::CapturedLog log;
  testing_pipelink::Library library;
  ASSERT_TRUE(library.Ready());
  {
    ListManager manager(library.Client());
    ASSERT_TRUE(manager.Init());
    EXPECT_FALSE(manager.Connected());
    EXPECT_EQ(manager.SendUpdateListRequest(), 31u);
    manager.toReport = {App(L"Tray", kStatusEnabled, 1)};
    EXPECT_EQ(manager.BuildAndReport(), 31u);
  }
  EXPECT_EQ(log.count(L"Could not create a communication client."), 1u);
  EXPECT_EQ(log.count(L"Could not post report message"), 0u);

  pipelink::PipeMessage message{0, 0, 0, startup::kMsgAppList, nullptr, 0, 0};
  EXPECT_EQ(startup::CBaseStartupManager::StaticNpcCallback(nullptr, &message), 31u);
  EXPECT_EQ(log.count(L"Instance was null."), 1u);
}

}  // namespace
