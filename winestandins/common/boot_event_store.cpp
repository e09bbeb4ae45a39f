#include "common/boot_event_store.h"

#include <picojson.h>

#include <algorithm>
#include <charconv>
#include <cwchar>
#include <cstdint>
#include <filesystem>

#include "common/unique_handle.h"
#include "lumera_dev/read_to_end.h"

namespace winestandins {
namespace {

constexpr wchar_t kProfileListKey[] = L"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
constexpr wchar_t kStoreFolder[] = L"\\WineStandIns";
constexpr wchar_t kStoreFile[] = L"\\DiagnosticsPerformance.jsonl";
constexpr int kLockAttempts = 200;
constexpr DWORD kLockRetryMs = 10;

bool Number(const picojson::object& object, const char* name, std::uint64_t limit, std::uint64_t& out) {
  const auto it = object.find(name);
  if (it == object.end() || !it->second.is<std::string>()) return false;
  const std::string& text = it->second.get<std::string>();
  if (text.empty() || text.size() > 20) return false;
  std::uint64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size() || value > limit) return false;
  out = value;
  return true;
}

// Opens the store for appending, waiting while another writer holds it.
ky::unique_file OpenForAppend(const std::wstring& path) {
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    ky::unique_file file(::CreateFileW(path.c_str(), FILE_APPEND_DATA | GENERIC_READ, FILE_SHARE_READ, nullptr,
                                       OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file || ::GetLastError() != ERROR_SHARING_VIOLATION) return file;
    ::Sleep(kLockRetryMs);
  }
  return ky::unique_file();
}

}  // namespace

std::wstring BootEventStorePath() {
  wchar_t buffer[MAX_PATH] = {};
  const DWORD chars = ::GetEnvironmentVariableW(kStoreOverride, buffer, MAX_PATH);
  if (chars > 0 && chars < MAX_PATH) return buffer;
  // The machine's ProgramData, not the process's variable: under Wine a service's
  // environment names C:\users\Public there, so the writer and a subscribing service would
  // look at different stores.
  DWORD bytes = sizeof buffer;
  if (::RegGetValueW(HKEY_LOCAL_MACHINE, kProfileListKey, L"ProgramData", RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ,
                     nullptr, buffer, &bytes) != ERROR_SUCCESS ||
      buffer[0] == L'\0' || std::wcschr(buffer, L'%') != nullptr) {
    const UINT length = ::GetSystemWindowsDirectoryW(buffer, MAX_PATH);
    if (length < 3 || length >= MAX_PATH || buffer[1] != L':') return {};
    buffer[2] = L'\0';
    std::wcscat(buffer, L"\\ProgramData");
  }
  return std::wstring(buffer) + kStoreFolder + kStoreFile;
}

std::string FormatBootEvent(const BootEventRecord& record) {
  picojson::object object;
  object["id"] = picojson::value(std::to_string(record.id));
  object["created"] = picojson::value(std::to_string(record.created));
  object["BootTime"] = picojson::value(std::to_string(record.bootTime));
  object["MainPathBootTime"] = picojson::value(std::to_string(record.mainPathBootTime));
  object["BootPostBootTime"] = picojson::value(std::to_string(record.postBootTime));
  return picojson::value(object).serialize();
}

bool ParseBootEvent(const std::string& line, BootEventRecord& out) {
  if (line.empty() || line.size() > kMaxLineBytes) return false;
  picojson::value value;
  const std::string error = picojson::parse(value, line);
  if (!error.empty() || !value.is<picojson::object>()) return false;
  const picojson::object& object = value.get<picojson::object>();
  BootEventRecord record;
  std::uint64_t boot = 0, mainPath = 0, postBoot = 0;
  if (!Number(object, "id", UINT64_MAX, record.id) || !Number(object, "created", UINT64_MAX, record.created) ||
      !Number(object, "BootTime", UINT32_MAX, boot) || !Number(object, "MainPathBootTime", UINT32_MAX, mainPath) ||
      !Number(object, "BootPostBootTime", UINT32_MAX, postBoot)) {
    return false;
  }
  record.bootTime = static_cast<std::uint32_t>(boot);
  record.mainPathBootTime = static_cast<std::uint32_t>(mainPath);
  record.postBootTime = static_cast<std::uint32_t>(postBoot);
  out = record;
  return true;
}

bool ReadBootEvents(const std::wstring& path, std::vector<BootEventRecord>& out) {
  out.clear();
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
  if (!file) {
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
  }
  std::string text;
  if (!lumera::dev::ReadToEnd(file.get(), kMaxStoreBytes, text)) return false;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    // A last line without its end may still be being written: it is left for the next read.
    if (end == std::string::npos) break;
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    BootEventRecord record;
    if (ParseBootEvent(line, record)) out.push_back(record);
    start = end + 1;
  }
  return true;
}

DWORD AppendBootEvent(const std::wstring& path, BootEventRecord& record) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  ky::unique_file file = OpenForAppend(path);
  if (!file) return ::GetLastError() != 0 ? ::GetLastError() : ERROR_SHARING_VIOLATION;
  std::vector<BootEventRecord> existing;
  if (!ReadBootEvents(path, existing)) return ::GetLastError() != 0 ? ::GetLastError() : ERROR_READ_FAULT;
  record.id = existing.empty() ? 1 : existing.back().id + 1;
  const std::string line = FormatBootEvent(record) + "\n";
  DWORD written = 0;
  if (!::WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr) ||
      written != line.size()) {
    return ::GetLastError() != 0 ? ::GetLastError() : ERROR_WRITE_FAULT;
  }
  file.reset();
  ky::unique_handle signal(::CreateEventW(nullptr, FALSE, FALSE, kWrittenEventName));
  if (signal) ::SetEvent(signal.get());
  return 0;
}

}  // namespace winestandins
