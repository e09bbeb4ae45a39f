// fuzz_app_list.exe: the app list the central component sends (message 1005) as the startup
// manager reads it, and the report built from the apps read, which must read back the same.
#include <windows.h>

#include <string_view>

#include "fuzz_driver.h"
#include "startup/central_messages.h"

namespace {

using startup::AppList;

bool SameApps(const AppList& a, const AppList& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i]->name != b[i]->name || a[i]->owner != b[i]->owner || a[i]->qid != b[i]->qid ||
        a[i]->status != b[i]->status) {
      return false;
    }
  }
  return true;
}

fuzz::Outcome ReadAppList(const std::uint8_t* data, std::size_t size) {
  AppList apps;
  const std::uint32_t result = startup::BuildAppList(std::string_view(reinterpret_cast<const char*>(data), size), apps);
  if (result != 0) {
    if (result != ERROR_INVALID_DATA || !apps.empty()) fuzz::Fail("a refused list gave apps or another code");
    return 1;
  }
  std::size_t statuses[3] = {};
  for (const auto& app : apps) {
    if (app->status < startup::kStatusEnabled || app->status > startup::kStatusDelayed) fuzz::Fail("status out of range");
    ++statuses[app->status];
  }
  // The central component reads the reports this side writes with the same reader.
  AppList back;
  if (startup::BuildAppList(startup::BuildReportJson(apps, 0), back) != 0 || !SameApps(apps, back)) {
    fuzz::Fail("a report of the apps read did not read back the same");
  }
  return 2 + (fuzz::Bucket(apps.size()) << 2 | fuzz::Bucket(statuses[1]) << 5 | fuzz::Bucket(statuses[2]) << 8);
}

}  // namespace

int main(int argc, char** argv) {
  return fuzz::Run(argc, argv,
                   {.name = "app_list",
                    .corpus = {fuzz::ToBytes(R"({"apps":[]})"),
                               fuzz::ToBytes(
                                   R"({"apps":[{"name":"Viewer","owner":"Nexalon","qid":"3f2a","status":"disabled"},)"
                                   R"({"name":"\u00e9\u4e2d","owner":"","qid":"","status":"paused"},{"name":"NoOwner","qid":"1","status":"enabled"},)"
                                   R"({"name":"Late","owner":"O","qid":"9","status":"delayed","time":1200},7,null]})"),
                               fuzz::ToBytes(R"({"apps":{}})"), fuzz::ToBytes(R"([{"apps":[]}])")},
                    .dictionary = {"apps", "name", "owner", "qid", "status", "enabled", "disabled", "delayed", "time"},
                    .json = true,
                    .maxBytes = 64 * 1024,
                    .read = &ReadAppList});
}
