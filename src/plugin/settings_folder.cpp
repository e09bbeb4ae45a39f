#include "plugin/settings_folder.h"

#include <shlwapi.h>

#include "common/log.h"
#include "common/module_library.h"
#include "common/plugin_ref.h"
#include "common/service_folder.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"

namespace plugin {
namespace {

constexpr wchar_t kSettingsSubfolder[] = L"velora\\";
constexpr wchar_t kFallbackSubfolder[] = L"settings\\velora\\";

}  // namespace

std::wstring ResolveSettingsFolder(IPlgComponentManager* manager) {
  // Logged under the plug-in's name, where this has always been logged.
  KY_TRACE(L"boottime::CBootTimePlugin::GetSettingsFolderPath");
  std::wstring folder;
  if (manager == nullptr) {
    KY_LOG(logging::kLevelError, L"Component Manager is null!");
  } else {
    ky::PluginRef<IProductInfo> info;
    if (info.Acquire(manager, lumera::kProductInfoName, lumera::ids::ProductInfoPlugin) != 0 || !info) {
      KY_LOG(logging::kLevelWarning, L"Error getting plugin: %s", lumera::kProductInfoName);
    } else if (const wchar_t* common = info->GetFolder(lumera::kFolderKindCommon, L"common")) {
      folder = common;
    }
  }
  if (!folder.empty()) {
    if (folder.back() != L'\\') folder += L'\\';
    folder += kSettingsSubfolder;
    if (::PathIsRelativeW(folder.c_str())) folder = ky::ThisModuleFolder() + folder;
  } else {
    folder = ky::ModuleFolder(nullptr);
    if (!folder.empty() && folder.back() != L'\\' && folder.back() != L'/') folder += L'\\';
    folder += kFallbackSubfolder;
  }
  PrepareSettingsFolder(folder);
  KY_LOG(logging::kLevelInfo, L"settingsFolderPath=%s", folder.c_str());
  return folder;
}

void PrepareSettingsFolder(const std::wstring& folder) {
  KY_TRACE(L"plugin::PrepareSettingsFolder");
  std::wstring path = folder;
  while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
  ky::FolderResult result;
  if (const std::uint32_t error = ky::EnsureServiceFolder(path, result); error != 0) {
    KY_LOG(logging::kLevelError, L"EnsureServiceFolder %s failed 0x%x", path.c_str(), error);
    return;
  }
  if (result.state == ky::FolderState::kRepaired) {
    KY_LOG(logging::kLevelWarning, L"Folder %s had owner and access list %s; set to the service's own", path.c_str(),
           result.found.c_str());
  }
}

}  // namespace plugin
