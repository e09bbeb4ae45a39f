// A scratch agent store for AppAgentDP.dll (one folder per application, one file per value)
// and a product-information object that names it as the agent path.
#pragma once

#include <windows.h>

#include <string>

#include "lumera/productinfo.h"
#include "startup/scratch.h"
#include "support/scratch_folder.h"

namespace testing_report {

class AgentStore {
 public:
  // Writes `value` as the application's "app_paths" (the folder is made when new).
  void SetAppPaths(const std::wstring& app, const std::string& value) const {
    ::CreateDirectoryW(folder_.file(app).c_str(), nullptr);
    testing_startup::WriteFile(folder_.file(app + L"\\app_paths"), value);
  }
  void AddApp(const std::wstring& app) const { ::CreateDirectoryW(folder_.file(app).c_str(), nullptr); }
  const std::wstring& Path() const { return folder_.path(); }

 private:
  testsupport::ScratchFolder folder_;
};

// Answers item 422 with "Desktop" with the given path and nothing else.
class FakeProductInfo final : public IProductInfo {
 public:
  explicit FakeProductInfo(std::wstring agentPath) : agentPath_(std::move(agentPath)) {}
  void* GetInterface(const GUID&) override { return this; }
  std::uint32_t Init(IServMain*) override { return 0; }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }
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
