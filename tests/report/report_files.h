// The report tests' fixture programs (built with version resources beside the tests) and the
// digests sha256sum gave for them at build time.
#pragma once

#include <windows.h>

#include <fstream>
#include <string>

#include "support/scratch_folder.h"

namespace testing_report {

// report_fixture_<name>.exe in the test programs' folder: full, nocompany, german, fallback, plain.
inline std::wstring Fixture(const std::wstring& name) {
  return testsupport::ExeFolder() + L"report_fixture_" + name + L".exe";
}

// The 64 hexadecimal digits sha256sum printed for the fixture, empty when it was not run.
inline std::wstring Sha256sumOf(const std::wstring& name) {
  const std::string text = testsupport::ReadFileBytes(testsupport::ExeFolder() + L"report_fixture_" + name + L".sha256");
  return text.size() < 64 ? std::wstring() : std::wstring(text.begin(), text.begin() + 64);
}

inline bool CopyTo(const std::wstring& from, const std::wstring& to) { return ::CopyFileW(from.c_str(), to.c_str(), FALSE) != FALSE; }

}  // namespace testing_report
