// The process's environment and current folder pointed elsewhere for one test and put back when
// it ends, for tests that steer the programs they start, or a loader that must not look there.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/scratch_folder.h"

namespace testsupport {

// The variable's value, empty when it is not set.
inline std::wstring EnvironmentValue(const wchar_t* name) {
  std::vector<wchar_t> value(32768, L'\0');
  const DWORD chars = ::GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size()));
  return chars < value.size() ? std::wstring(value.data(), chars) : std::wstring();
}

// Sets the variable (or removes it, for null) until destruction, which restores or removes it.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const wchar_t* name, const wchar_t* value)
      : name_(name), saved_(EnvironmentValue(name)), wasSet_(::GetEnvironmentVariableW(name, nullptr, 0) > 0) {
    ::SetEnvironmentVariableW(name, value);
  }
  ScopedEnvironment(const wchar_t* name, const std::wstring& value) : ScopedEnvironment(name, value.c_str()) {}
  ~ScopedEnvironment() { ::SetEnvironmentVariableW(name_.c_str(), wasSet_ ? saved_.c_str() : nullptr); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::wstring name_;
  std::wstring saved_;
  bool wasSet_;
};

// A scratch folder made current and another put first on PATH while this lives, where a test
// plants copies that no loader or launcher of the module may pick up.
class PlantedSearchFolders {
 public:
  PlantedSearchFolders() { ::SetCurrentDirectoryW(current_.path().c_str()); }
  ~PlantedSearchFolders() { ::SetCurrentDirectoryW(savedFolder_.c_str()); }
  PlantedSearchFolders(const PlantedSearchFolders&) = delete;
  PlantedSearchFolders& operator=(const PlantedSearchFolders&) = delete;

  // Copies `from` into both folders as `name`.
  void Plant(const std::filesystem::path& from, const std::wstring& name) const {
    std::filesystem::copy_file(from, current_.file(name));
    std::filesystem::copy_file(from, onPath_.file(name));
  }
  // Whether either folder holds `name`.
  bool EitherHas(const std::wstring& name) const {
    return std::filesystem::exists(current_.file(name)) || std::filesystem::exists(onPath_.file(name));
  }
  const ScratchFolder& Current() const { return current_; }

 private:
  ScratchFolder current_;
  ScratchFolder onPath_;
  std::wstring savedFolder_ = std::filesystem::current_path().wstring();
  ScopedEnvironment path_{L"PATH", onPath_.path() + L";" + EnvironmentValue(L"PATH")};
};

}  // namespace testsupport
