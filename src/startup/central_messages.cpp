#include "startup/central_messages.h"

#include "common/json_file.h"
#include "common/log.h"
#include "common/text_convert.h"
#include "picojson.h"

namespace startup {
namespace {

constexpr std::size_t kLoggedTextBytes = 1024;  // leaves room for the parser's message in one log line

// The received text in the log, cut so one bad message cannot flood it.
std::string ForLog(std::string_view text) {
  return text.size() <= kLoggedTextBytes ? std::string(text) : std::string(text.substr(0, kLoggedTextBytes)) + "...";
}

// Each field an app must hold as text, in the order checked, and what is logged without it.
constexpr std::pair<const char*, const wchar_t*> kAppFields[] = {
    {"name", L"App object doesn't have a name."},
    {"owner", L"App object doesn't have an owner."},
    {"qid", L"App object doesn't have a QID."},
    {"status", L"App object doesn't have status."},
};

picojson::value Number(double value) { return picojson::value(value); }
picojson::value Text(const std::wstring& text) { return picojson::value(ky::WideToUtf8(text)); }

}  // namespace

const char* StatusWord(std::int32_t status) {
  switch (status) {
    case kStatusDisabled:
      return "disabled";
    case kStatusDelayed:
      return "delayed";
    default:
      return "enabled";
  }
}

bool StatusFromWord(const std::string& word, std::int32_t& status) {
  if (word == "enabled") {
    status = kStatusEnabled;
  } else if (word == "disabled") {
    status = kStatusDisabled;
  } else if (word == "delayed") {
    status = kStatusDelayed;
  } else {
    return false;
  }
  return true;
}

std::uint32_t BuildAppList(std::string_view text, AppList& list) {
  KY_TRACE(L"CBaseStartupManager::BuildAppList");
  picojson::value root;
  std::string error;
  if (text.size() > kMaxAppListBytes) {
    error = "longer than " + std::to_string(kMaxAppListBytes) + " bytes";
  } else {
    (void)ky::ParseJsonText(text.data(), text.data() + text.size(), root, error, kMaxAppListDepth);
  }
  if (!error.empty()) {
    const std::string shown = ForLog(text);
    KY_LOG(logging::kLevelError, L"Could not parse JSON. String received: %S. Error string: %S.", shown.c_str(),
           error.c_str());
    return ERROR_INVALID_DATA;
  }
  if (!root.is<picojson::object>() || !root.get("apps").is<picojson::array>()) {
    KY_LOG(logging::kLevelError, L"The JSON does not contain an app list.");
    return ERROR_INVALID_DATA;
  }
  // Deliberately not reset between apps: an unknown word repeats the status of the app before;
  // the first app of a list falls back to enabled.
  std::int32_t status = kStatusEnabled;
  const picojson::value none;
  for (const auto& app : root.get("apps").get<picojson::array>()) {
    const auto field = [&](const char* key) -> const picojson::value& {
      return app.is<picojson::object>() ? app.get(key) : none;
    };
    const wchar_t* missing = nullptr;
    for (const auto& [key, message] : kAppFields) {
      if (!field(key).is<std::string>()) {
        missing = message;
        break;
      }
    }
    if (missing != nullptr) {
      KY_LOG(logging::kLevelError, missing);
      continue;
    }
    const std::string& word = field("status").get<std::string>();
    if (!StatusFromWord(word, status)) {
      KY_LOG(logging::kLevelError, L"Unrecognized startup status: %S. Using default.", word.c_str());
    }
    auto entry = std::make_shared<StartupItemEx>();
    entry->name = ky::Utf8ToWide(field("name").get<std::string>());
    entry->owner = ky::Utf8ToWide(field("owner").get<std::string>());
    entry->qid = ky::Utf8ToWide(field("qid").get<std::string>());
    entry->status = status;
    list.push_back(std::move(entry));
  }
  return 0;
}

std::string BuildReportJson(const AppList& apps, std::uint32_t bootTotalTime) {
  picojson::array entries;
  double appsTotal = 0;
  double optimizedTotal = 0;
  for (const auto& app : apps) {
    picojson::object entry;
    entry["name"] = Text(app->name);
    entry["owner"] = Text(app->owner);
    entry["status"] = picojson::value(std::string(StatusWord(app->status)));
    entry["qid"] = Text(app->qid);
    entry["time"] = Number(app->time);
    if (app->isStore) entry["isStore"] = picojson::value(true);
    entries.emplace_back(std::move(entry));
    (app->status == kStatusEnabled ? appsTotal : optimizedTotal) += app->time;
  }
  picojson::object report;
  report["apps"] = picojson::value(std::move(entries));
  report["boot_total_time"] = Number(bootTotalTime);
  report["apps_total_time"] = Number(appsTotal);
  report["optimized_total_time"] = Number(optimizedTotal);
  return picojson::value(std::move(report)).serialize();
}

std::string BuildImpactReportJson(const std::vector<boottime::ProcessImpact>& processes) {
  picojson::array entries;
  for (const auto& process : processes) {
    picojson::object entry;
    entry["name"] = Text(process.name);
    entry["ppid"] = Number(static_cast<double>(process.ppid));
    entry["kernel"] = Number(process.kernel);
    entry["user"] = Number(process.user);
    entry["read"] = Number(process.read);
    entry["write"] = Number(process.write);
    entry["other"] = Number(process.other);
    // The process id, kept for diagnosing a report against the boot it came from.
    entry["debug"] = Number(static_cast<double>(process.pid));
    entries.emplace_back(std::move(entry));
  }
  picojson::object report;
  report["processes"] = picojson::value(std::move(entries));
  return picojson::value(std::move(report)).serialize();
}

}  // namespace startup
