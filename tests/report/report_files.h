// The report tests' fixture programs (built with version resources beside the tests) and the
// digests sha256sum gave for them at build time.
#pragma once

#include <windows.h>
#include <shlobj.h>

#include <memory>
#include <string>
#include <vector>

#include "startup/central_messages.h"
#include "support/programs.h"
#include "support/registry_values.h"
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

// A reportable application as the startup manager hands it over.
inline startup::StartupItemExPtr App(const wchar_t* name, std::int32_t status, std::uint32_t time,
                                     const wchar_t* owner = L"Owner", const wchar_t* qid = L"ab") {
  auto app = std::make_shared<startup::StartupItemEx>();
  app->name = name;
  app->owner = owner;
  app->qid = qid;
  app->status = status;
  app->time = time;
  return app;
}

using testsupport::kApprovedRun;
using testsupport::kRunKey;

// Sets the user Run key's value `name` to `command`.
inline bool SetRun(const std::wstring& name, const std::wstring& command) {
  return testsupport::SetRegText(HKEY_CURRENT_USER, kRunKey, name, command) == ERROR_SUCCESS;
}

// The user's Run and StartupApproved values of `runNames`, the Startup folder's `folderEntry`,
// an agent application folder (when named) and the store as the test found them, put back when it ends.
class UserStartupState {
 public:
  UserStartupState(std::vector<std::wstring> runNames, std::wstring folderEntry, std::wstring store,
                   std::wstring agentApp = L"")
      : runNames_(std::move(runNames)), folderEntry_(std::move(folderEntry)), store_(std::move(store)),
        agentApp_(std::move(agentApp)) {
    hadStore_ = ::GetFileAttributesW(store_.c_str()) != INVALID_FILE_ATTRIBUTES;
    storeBytes_ = testsupport::ReadFileBytes(store_);
  }
  ~UserStartupState() {
    for (const std::wstring& name : runNames_) {
      ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, name.c_str());
      ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kApprovedRun, name.c_str());
    }
    ::DeleteFileW((testsupport::SpecialFolder(CSIDL_STARTUP) + L"\\" + folderEntry_).c_str());
    if (!agentApp_.empty()) {
      ::DeleteFileW((agentApp_ + L"\\app_paths").c_str());
      ::RemoveDirectoryW(agentApp_.c_str());
    }
    if (hadStore_) {
      testsupport::WriteFileBytes(store_, storeBytes_);
    } else {
      ::DeleteFileW(store_.c_str());
    }
  }
  UserStartupState(const UserStartupState&) = delete;
  UserStartupState& operator=(const UserStartupState&) = delete;

 private:
  std::vector<std::wstring> runNames_;
  std::wstring folderEntry_, store_, agentApp_;
  std::string storeBytes_;
  bool hadStore_ = false;
};

}  // namespace testing_report
