#include "host_config.h"

#include <windows.h>
#include <shlobj.h>

#include <filesystem>
#include <fstream>

#include "picojson.h"

namespace host {
namespace {

constexpr std::size_t kMaxConfigBytes = 256 * 1024;

std::wstring Widen(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int n = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(static_cast<std::size_t>(n), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), out.data(), n);
  return out;
}

void ReadStrings(const picojson::value& section, std::map<std::wstring, std::wstring>& into) {
  if (!section.is<picojson::object>()) return;
  for (const auto& [key, value] : section.get<picojson::object>()) {
    if (value.is<std::string>()) into[Widen(key)] = Widen(value.get<std::string>());
  }
}

}  // namespace

std::wstring DefaultCommonFolder() {
  wchar_t programData[MAX_PATH] = {};
  if (!::SHGetSpecialFolderPathW(nullptr, programData, CSIDL_COMMON_APPDATA, TRUE)) return {};
  return std::wstring(programData) + L"\\Nexalon\\Lumera";
}

bool LoadHostConfig(const std::wstring& path, HostConfig& config, std::wstring& error) {
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::path(path), ec)) return true;
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  if (!file) {
    error = L"cannot open " + path;
    return false;
  }
  std::string text(kMaxConfigBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  const auto got = static_cast<std::size_t>(file.gcount());
  if (got > kMaxConfigBytes) {
    error = path + L" is larger than 256 KiB";
    return false;
  }
  text.resize(got);
  picojson::value root;
  const std::string parseError = picojson::parse(root, text);
  if (!parseError.empty() || !root.is<picojson::object>()) {
    error = path + L": " + (parseError.empty() ? L"not a JSON object" : Widen(parseError));
    return false;
  }
  const picojson::value& objects = root.get("objects");
  if (objects.is<picojson::array>()) {
    config.objects.clear();
    for (const auto& name : objects.get<picojson::array>()) {
      if (name.is<std::string>()) config.objects.push_back(Widen(name.get<std::string>()));
    }
  }
  if (root.get("module").is<std::string>()) config.moduleName = Widen(root.get("module").get<std::string>());
  ReadStrings(root.get("folders"), config.folders);
  ReadStrings(root.get("items"), config.items);
  ReadStrings(root.get("settings"), config.settings);
  const picojson::value& log = root.get("log");
  if (log.is<picojson::object>()) {
    if (log.get("folder").is<std::string>()) config.logFolder = Widen(log.get("folder").get<std::string>());
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
