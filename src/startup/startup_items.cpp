#include "startup/startup_items.h"

#include <shlobj.h>

#include "common/com_ptr.h"
#include "common/log.h"
#include "common/windows_version.h"
#include "lumera/storeappslist.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/store_apps_enumerator.h"

namespace startup {
namespace {

constexpr std::uint8_t kUser = 1;
constexpr std::uint8_t kMachine = 0;

// The machine's Startup folder, which belongs to no user and so needs no token.
bool CommonStartupFolder(std::wstring& folder) {
  KY_TRACE(L"CommonStartupFolder");
  ky::unique_cotaskmem_string path;
  const HRESULT result = ::SHGetKnownFolderPath(FOLDERID_CommonStartup, KF_FLAG_DONT_VERIFY, nullptr, path.put());
  if (FAILED(result) || !path) {
    KY_LOG(logging::kLevelError, L"SHGetKnownFolderPath CommonStartup failed 0x%x", static_cast<unsigned>(result));
    return false;
  }
  folder = path.get();
  return true;
}

void AddFolderSource(StartupSourceList& sources, std::wstring folder, std::uint8_t isUser) {
  if (folder.empty()) return;
  if (folder.back() != L'\\') folder.push_back(L'\\');
  sources.emplace_back(std::make_shared<CStartupFolderEnumerator>(isUser), std::move(folder));
}

}  // namespace

CStartupItems::CStartupItems() : CStartupItems(velora::utils::CUserProfile::Refresh()) {}

CStartupItems::CStartupItems(std::shared_ptr<const velora::utils::CUserProfile> profile) : user_(std::move(profile)) {
  KY_TRACE(L"CStartupItems::CStartupItems");
  // A service's HKEY_CURRENT_USER is its own account's hive, not the user's: without the
  // user's SID the user's Run key is left out rather than replaced by it.
  if (user_) {
    runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_USERS, kUser),
                                user_->Sid() + L"\\" + kRunKeyPath);
  } else {
    KY_LOG(logging::kLevelInfo, L"no user SID: the user's Run key is left out");
  }
  runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_LOCAL_MACHINE, kMachine), kRunKeyPath);
  runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_LOCAL_MACHINE, kMachine), kRunKeyPathWow);
  // A service's HKEY_CLASSES_ROOT shows no user's classes: the user's packages and the states
  // of their tasks are in the user's own classes, reached through the SID.
  if (user_ && ky::IsWindows8OrGreater()) {
    storeSources_.emplace_back(std::make_shared<MicrosoftStoreAppsEnumerator>(user_->Sid()),
                               user_->Sid() + L"\\" + storeapps::kUserClassesPath + kStoreAppsKeyPath);
  }

  // The user's Startup folder is the user's known folder, read through the user's token: the
  // service's own %userprofile% is the system profile.
  std::wstring userFolder;
  if (user_) {
    if (const std::uint32_t found = user_->KnownFolder(FOLDERID_Startup, userFolder); found != 0) {
      KY_LOG(logging::kLevelError, L"SHGetKnownFolderPath Startup of %s failed 0x%x", user_->UserName().c_str(), found);
      userFolder.clear();
    }
  }
  AddFolderSource(folderSources_, userFolder, kUser);
  std::wstring commonFolder;
  if (CommonStartupFolder(commonFolder)) AddFolderSource(folderSources_, commonFolder, kMachine);
}

bool CStartupItems::GetCrtUserSid(std::wstring& sid) {
  KY_TRACE(L"CStartupItems::GetCrtUserSid");
  const std::shared_ptr<const velora::utils::CUserProfile> profile = velora::utils::CUserProfile::Refresh();
  if (!profile) return false;
  sid = profile->Sid();
  return true;
}

}  // namespace startup
