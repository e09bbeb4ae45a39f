#include "report_table.h"

#include <cstdio>

#include "picojson.h"

namespace central {
namespace {

constexpr std::size_t kNameWidth = 28;
constexpr std::size_t kOwnerWidth = 22;
constexpr std::size_t kQidShown = 12;  // the full identity is in --json and --out

std::string Cell(std::string text, std::size_t width) {
  if (text.size() > width) text = text.substr(0, width - 3) + "...";
  return text + std::string(width - text.size() + 1, ' ');
}

const picojson::value& Member(const picojson::value& object, const char* key) {
  static const picojson::value none;
  return object.is<picojson::object>() ? object.get(key) : none;
}

double Number(const picojson::value& object, const char* key) {
  const picojson::value& value = Member(object, key);
  return value.is<double>() ? value.get<double>() : 0;
}

std::string Text(const picojson::value& object, const char* key) {
  const picojson::value& value = Member(object, key);
  return value.is<std::string>() ? value.get<std::string>() : "";
}

std::string Format(const char* format, double a, double b = 0, double c = 0, double d = 0) {
  char line[256];
  std::snprintf(line, sizeof(line), format, a, b, c, d);
  return line;
}

std::string AppsTable(const picojson::value& report, unsigned long number) {
  const auto& apps = report.get("apps").get<picojson::array>();
  std::string out = "report " + std::to_string(number) + ": " + std::to_string(apps.size()) + " apps\n";
  out += Cell("APP", kNameWidth) + Cell("OWNER", kOwnerWidth) + "STATUS      TIME ms  QID\n";
  for (const auto& app : apps) {
    std::string qid = Text(app, "qid");
    if (qid.size() > kQidShown) qid = qid.substr(0, kQidShown) + "...";
    out += Cell(Text(app, "name"), kNameWidth) + Cell(Text(app, "owner"), kOwnerWidth) + Cell(Text(app, "status"), 9) +
           Format("%9.0f  ", Number(app, "time")) + (qid.empty() ? "-" : qid) + "\n";
  }
  out += Format("boot %.0f ms, apps %.0f ms, optimized %.0f ms\n", Number(report, "boot_total_time"),
                Number(report, "apps_total_time"), Number(report, "optimized_total_time"));
  return out;
}

std::string ProcessTable(const picojson::value& report, unsigned long number) {
  const auto& processes = report.get("processes").get<picojson::array>();
  std::string out = "report " + std::to_string(number) + ": " + std::to_string(processes.size()) + " processes\n";
  out += Cell("PROCESS", kNameWidth) + "  PPID  KERNEL ms  USER ms   READ MB  WRITE MB\n";
  for (const auto& process : processes) {
    out += Cell(Text(process, "name"), kNameWidth) +
           Format("%6.0f  %9.0f  %7.0f", Number(process, "ppid"), Number(process, "kernel"), Number(process, "user")) +
           Format("  %8.1f  %8.1f\n", Number(process, "read") / 1e6, Number(process, "write") / 1e6);
  }
  return out;
}

}  // namespace

std::string ReportTable(const std::string& text, unsigned long number) {
  picojson::value report;
  const std::string error = picojson::parse(report, text);
  if (!error.empty()) return "report " + std::to_string(number) + ": not JSON (" + error + ")\n";
  if (Member(report, "apps").is<picojson::array>()) return AppsTable(report, number);
  if (Member(report, "processes").is<picojson::array>()) return ProcessTable(report, number);
  return "report " + std::to_string(number) + ": neither apps nor processes\n";
}

}  // namespace central
