// CStartupItems: where startup entries are looked for — the Run keys (the current user's
// through HKEY_USERS and the user's SID), the user's Store key and the two Startup folders.
// The user is looked up once, at construction; without a user only the machine's sources are
// searched.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "startup/startup_item.h"
#include "users/user_profile.h"

namespace startup {

inline constexpr wchar_t kRunKeyPath[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kRunKeyPathWow[] = L"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kStoreAppsKeyPath[] =
    L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData";

// One place to search: the enumerator and the path given to its GetStartupApps.
using StartupSource = std::pair<std::shared_ptr<IStartupAppsEnumerator>, std::wstring>;
using StartupSourceList = std::vector<StartupSource>;

class CStartupItems {
 public:
  // Captures the console user afresh (velora::utils::CUserProfile::Refresh).
  CStartupItems();
  // The sources of the user `profile` (null: the machine's only).
  explicit CStartupItems(std::shared_ptr<const velora::utils::CUserProfile> profile);

  const StartupSourceList& RunKeySources() const { return runKeySources_; }
  // The Store enumerator with the SystemAppData key of the user's classes below HKEY_USERS,
  // on Windows 8 and later only: older Windows has no Store startup tasks.
  const StartupSourceList& StoreSources() const { return storeSources_; }
  const StartupSourceList& FolderSources() const { return folderSources_; }

  // The console user's SID as a string, through kyusers.dll and LookupAccountNameW; false,
  // `sid` untouched, when the library, the user or the lookup fails. Captures the user afresh.
  [[nodiscard]] static bool GetCrtUserSid(std::wstring& sid);

  // The user the sources belong to; null when nobody was logged on.
  const std::shared_ptr<const velora::utils::CUserProfile>& User() const { return user_; }

 private:
  std::shared_ptr<const velora::utils::CUserProfile> user_;
  StartupSourceList runKeySources_;
  StartupSourceList storeSources_;
  StartupSourceList folderSources_;
};

}  // namespace startup
