#include "log_settings.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <vector>

#include "common/module_library.h"

namespace logcore {
namespace {

constexpr DWORD kMaxPathChars = 32767;
constexpr wchar_t kSection[] = L"Log";

// Returns false when the variable is unset or empty.
bool ReadEnvironment(const wchar_t* name, std::wstring& value) {
  std::vector<wchar_t> buffer(kMaxPathChars + 1, L'\0');
  const DWORD n = ::GetEnvironmentVariableW(name, buffer.data(), kMaxPathChars);
  if (n == 0 || n > kMaxPathChars) return false;
  value.assign(buffer.data(), n);
  return true;
}

bool ParseNumber(const std::wstring& text, std::uint32_t& value) {
  wchar_t* end = nullptr;
  const unsigned long parsed = std::wcstoul(text.c_str(), &end, 0);
  if (end == text.c_str() || *end != L'\0') return false;
  value = static_cast<std::uint32_t>(parsed);
  return true;
}

std::uint32_t ReadUint(const std::wstring& path, const wchar_t* key, std::uint32_t fallback) {
  return ::GetPrivateProfileIntW(kSection, key, static_cast<INT>(fallback), path.c_str());
}

}  // namespace

std::wstring DefaultFolder() { return ky::ThisModuleFolder() + L"logs\\"; }

std::wstring WithTrailingBackslash(std::wstring folder) {
  if (!folder.empty() && folder.back() != L'\\' && folder.back() != L'/') folder += L'\\';
  return folder;
}

Settings InitialSettings() {
  Settings settings;
  settings.folder = DefaultFolder();
  std::wstring value;
  if (ReadEnvironment(kEnvFolder, value)) settings.folder = WithTrailingBackslash(value);
  std::uint32_t level = 0;
  if (ReadEnvironment(kEnvLevel, value) && ParseNumber(value, level)) settings.maxLevel = level;
  if (ReadEnvironment(kEnvConsole, value) && value == L"1") settings.type |= kTypeConsole;
  return settings;
}

bool ApplySettingsFile(const std::wstring& path, Settings& settings) {
  if (path.empty() || ::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return false;
  settings.enabled = ReadUint(path, L"Enabled", settings.enabled ? 1 : 0) != 0;
  settings.maxLevel = ReadUint(path, L"Level", settings.maxLevel);
  settings.type = ReadUint(path, L"Type", settings.type) & kTypeFileAndConsole;
  settings.mode = ReadUint(path, L"Mode", settings.mode);
  settings.maxSize = ReadUint(path, L"MaxSize", settings.maxSize);
  settings.maxIndent = std::min(ReadUint(path, L"Depth", settings.maxIndent), kMaxIndentLimit);
  std::vector<wchar_t> folder(MAX_PATH * 4, L'\0');
  const DWORD n = ::GetPrivateProfileStringW(kSection, L"Path", L"", folder.data(),
                                             static_cast<DWORD>(folder.size()), path.c_str());
  if (n > 0) settings.folder = WithTrailingBackslash(std::wstring(folder.data(), n));
  return true;
}

}  // namespace logcore
