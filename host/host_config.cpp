#include "host_config.h"

#include <windows.h>
#include <shlobj.h>

#include "common/json_file.h"
#include "common/text_convert.h"
#include "picojson.h"

namespace host {
namespace {

constexpr std::size_t kMaxConfigBytes = 256 * 1024;

}  // namespace

std::wstring DefaultCommonFolder() {
  wchar_t programData[MAX_PATH] = {};
  if (!::SHGetSpecialFolderPathW(nullptr, programData, CSIDL_COMMON_APPDATA, TRUE)) return {};
  return std::wstring(programData) + L"\\Nexalon\\Lumera";
}

std::wstring DefaultAgentFolder() {
  const std::wstring common = DefaultCommonFolder();
  return common.empty() ? common : common + L"\\Agent";
}

bool LoadHostConfig(const std::wstring& path, HostConfig& config, std::wstring& error) {
  picojson::value root;
  std::string parseError;
  switch (ky::ReadJsonFile(path, root, parseError, kMaxConfigBytes)) {
    case ky::JsonReadResult::kOk:
      break;
    case ky::JsonReadResult::kCannotOpen:
      // A missing file keeps the defaults; one that exists but cannot be read is an error.
      if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return true;
      error = L"cannot open " + path;
      return false;
    case ky::JsonReadResult::kTooLarge:
      error = path + L" is larger than 256 KiB";
      return false;
    case ky::JsonReadResult::kParseError:
      error = path + L": " + ky::Utf8ToWide(parseError);
      return false;
  }
  if (!root.is<picojson::object>()) {
    error = path + L": not a JSON object";
    return false;
  }
  const picojson::value& objects = root.get("objects");
  if (objects.is<picojson::array>()) {
    config.objects.clear();
    for (const auto& name : objects.get<picojson::array>()) {
      if (name.is<std::string>()) config.objects.push_back(ky::Utf8ToWide(name.get<std::string>()));
    }
  }
  if (root.get("module").is<std::string>()) config.moduleName = ky::Utf8ToWide(root.get("module").get<std::string>());
  config.folders = ky::StringMembers(root.get("folders"));
  config.items = ky::StringMembers(root.get("items"));
  config.settings = ky::StringMembers(root.get("settings"));
  const picojson::value& log = root.get("log");
  if (log.is<picojson::object>()) {
    if (log.get("folder").is<std::string>()) config.logFolder = ky::Utf8ToWide(log.get("folder").get<std::string>());
    if (log.get("level").is<double>()) config.logLevel = static_cast<std::uint32_t>(log.get("level").get<double>());
    if (log.get("level").is<std::int64_t>()) config.logLevel = static_cast<std::uint32_t>(log.get("level").get<std::int64_t>());
    if (log.get("console").is<bool>()) config.logToConsole = log.get("console").get<bool>();
  }
  if (root.get("seconds").is<std::int64_t>()) {
    const std::int64_t s = root.get("seconds").get<std::int64_t>();
    config.seconds = s < 0 ? 0 : static_cast<std::uint32_t>(s);
  }
  return true;
}

}  // namespace host
