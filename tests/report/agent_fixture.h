// A scratch agent store for AppAgentDP.dll (one folder per application, one file per value)
// and a product-information object that names it as the agent path.
#pragma once

#include <windows.h>

#include <string>

#include "lumera/productinfo.h"
#include "startup/scratch.h"
#include "support/plugin_stub.h"
#include "support/scratch_folder.h"

namespace testing_report {

class AgentStore {
 public:
  // Writes `value` as the application's "app_paths" (the folder is made when new).
  void SetAppPaths(const std::wstring& app, const std::string& value) const {
    ::CreateDirectoryW(folder_.file(app).c_str(), nullptr);
    testsupport::WriteFileBytes(folder_.file(app + L"\\app_paths"), value);
  }
  void AddApp(const std::wstring& app) const { ::CreateDirectoryW(folder_.file(app).c_str(), nullptr); }
  const std::wstring& Path() const { return folder_.path(); }

 private:
  testsupport::ScratchFolder folder_;
};

// Answers item 422 with "Desktop" with the given path and nothing else.
class FakeProductInfo final : public testsupport::PluginStub<IProductInfo> {
 public:
  explicit FakeProductInfo(std::wstring agentPath) : agentPath_(std::move(agentPath)) {}
  const wchar_t* GetItem(std::uint32_t item, const wchar_t* argument) override {
    return item == lumera::kItemAgentPath && argument != nullptr && std::wstring(argument) == L"Desktop"
               ? agentPath_.c_str()
               : nullptr;
  }
  const wchar_t* GetFolder(std::uint32_t, const wchar_t*) override { return nullptr; }

 private:
  std::wstring agentPath_;
};

}  // namespace testing_report
