#include "plugin/settings_folder.h"

#include "common/log.h"
#include "common/service_folder.h"

namespace plugin {

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
