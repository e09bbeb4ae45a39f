// The last boot time file, "last_boot_time_information.json": the measured boot time and
// the start time of the system it belongs to, both as strings of decimal digits.
#include <charconv>
#include <limits>
#include <mutex>
#include <string>

#include "boottime/boot_time_monitor.h"
#include "common/json_file.h"
#include "common/log.h"
#include "common/safe_file.h"

namespace boottime {
namespace {

constexpr char kSystemStartKey[] = "systemStartTimestamp";
constexpr char kBootTimeKey[] = "bootTime";

// A whole string of decimal digits with an optional leading minus, within 32 bits.
bool ParseInt32(const std::string& text, std::int32_t& out) {
  const char* first = text.data();
  const char* last = text.data() + text.size();
  std::int32_t value = 0;
  const auto [end, error] = std::from_chars(first, last, value, 10);
  if (text.empty() || error != std::errc() || end != last) return false;
  out = value;
  return true;
}

}  // namespace

void BootTimeMonitor::StoreBootTimeOnDisk(const std::wstring& folder) {
  KY_TRACE(L"boottime::BootTimeMonitor::StoreBootTimeOnDisk");
  std::lock_guard hold(lock_);
  const std::int64_t systemStart =
      static_cast<std::int64_t>(clock_.WallClock()) - static_cast<std::int64_t>(clock_.TickCount());
  KY_LOG(logging::kLevelInfo, L"systemStartTime %lld", systemStart);
  picojson::object object;
  object[kSystemStartKey] = picojson::value(std::to_string(systemStart));
  object[kBootTimeKey] = picojson::value(std::to_string(static_cast<std::int32_t>(bootTime_)));
  const std::wstring path = folder + kFileName;
  if (const std::uint32_t written = ky::WriteFileWhole(path, picojson::value(object).serialize()); written != 0) {
    KY_LOG(logging::kLevelError, L"WriteFileWhole %s failed 0x%x", path.c_str(), written);
    KY_LOG(logging::kLevelError, L"Failed to save boot time data in JSON");
  }
}

void BootTimeMonitor::LoadLastBootTimeFromDisk(const std::wstring& folder) {
  KY_TRACE(L"boottime::BootTimeMonitor::LoadLastBootTimeFromDisk");
  std::lock_guard hold(lock_);
  picojson::value document;
  std::string error;
  switch (ky::ReadJsonFile(folder + kFileName, document, error)) {
    case ky::JsonReadResult::kCannotOpen:
      KY_LOG(logging::kLevelError, L"Can't find last boot information data");
      status_ = kStatusNone;
      return;
    case ky::JsonReadResult::kTooLarge:
      KY_LOG(logging::kLevelError, L"Invalid json file format : %S", "file too large");
      status_ = kStatusNone;
      return;
    case ky::JsonReadResult::kParseError:
      KY_LOG(logging::kLevelError, L"Invalid json file format : %S", error.c_str());
      status_ = kStatusNone;
      return;
    case ky::JsonReadResult::kOk:
      break;
  }
  if (!document.is<picojson::object>() || document.get<picojson::object>().count(kBootTimeKey) == 0) {
    KY_LOG(logging::kLevelError, L"Invalid last boot json file");
    status_ = kStatusNone;
    return;
  }
  KY_LOG(logging::kLevelInfo, L"Loading boot time from json");
  const picojson::value& text = document.get<picojson::object>().at(kBootTimeKey);
  std::int32_t value = 0;
  if (!text.is<std::string>() || !ParseInt32(text.get<std::string>(), value)) {
    KY_LOG(logging::kLevelError, L"Invalid last boot json file");
    status_ = kStatusNone;
    return;
  }
  bootTime_ = static_cast<std::uint32_t>(value);
  KY_LOG(logging::kLevelInfo, L"Loaded boot time %d", value);
  status_ = kStatusFound;
}

}  // namespace boottime
