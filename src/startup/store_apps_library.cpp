#include "startup/store_apps_library.h"

#include <mutex>

#include "common/log.h"

namespace startup {

CStoreAppsLibrary& CStoreAppsLibrary::Instance() {
  static CStoreAppsLibrary instance(ky::ThisModuleFolder() + storeapps::kLibraryName);
  return instance;
}

bool CStoreAppsLibrary::EnsureLoaded() {
  KY_TRACE(L"CStoreAppsLibrary::EnsureLoaded");
  if (getStoreApps_ != nullptr) return true;
  const std::uint32_t loaded = library_.Load(path_);
  if (loaded != 0) {
    KY_LOG(logging::kLevelError, L"Failed LoadLibrary %s 0x%x", path_.c_str(), loaded);
    return false;
  }
  const char* missing = nullptr;
  if (library_.Bind({ky::BindAs(storeapps::kGetStoreAppsOfUser, getStoreApps_)}, &missing) != 0) {
    KY_LOG(logging::kLevelError, L"Failed GetProcAddress %S", missing != nullptr ? missing : "?");
    library_.Free();
    return false;
  }
  return true;
}

std::uint32_t CStoreAppsLibrary::GetStoreApps(const std::wstring& sid, std::vector<MicrosoftStoreApp>& apps) {
  KY_TRACE(L"CStoreAppsLibrary::GetStoreApps");
  std::lock_guard<ky::CriticalSection> hold(lock_);
  if (!EnsureLoaded()) return kStoreAppsUnavailable;
  ky::List<MicrosoftStoreApp> list;
  const std::uint32_t result = getStoreApps_(sid.c_str(), &list);
  if (result == ERROR_FILE_NOT_FOUND) {
    KY_LOG(logging::kLevelInfo, L"no packaged applications");
    return 0;
  }
  if (result != 0) {
    KY_LOG(logging::kLevelError, L"GetStoreApps failed 0x%x", result);
    return result;
  }
  apps.insert(apps.end(), list.Items().begin(), list.Items().end());
  return 0;
}

}  // namespace startup
