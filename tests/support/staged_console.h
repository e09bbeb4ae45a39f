// The console session as the development switch stages it for this process alone: a value of
// its own under the development key, named through the override variable, deleted afterwards.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "lumera_dev/console_session.h"
#include "support/registry_values.h"

namespace testsupport {

class StagedConsole {
 public:
  explicit StagedConsole(const wchar_t* prefix = L"ConsoleSession.test")
      : name_(prefix + std::to_wstring(::GetCurrentProcessId())) {
    ::SetEnvironmentVariableW(lumera::dev::kValueOverride, name_.c_str());
  }
  ~StagedConsole() {
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, lumera::dev::kDevelopmentKey, name_.c_str());
    ::SetEnvironmentVariableW(lumera::dev::kValueOverride, nullptr);
  }
  StagedConsole(const StagedConsole&) = delete;
  StagedConsole& operator=(const StagedConsole&) = delete;

  void Set(DWORD loggedOn) const {
    ASSERT_EQ(SetRegDword(HKEY_LOCAL_MACHINE, lumera::dev::kDevelopmentKey, name_, loggedOn), ERROR_SUCCESS);
  }

 private:
  std::wstring name_;
};

}  // namespace testsupport
