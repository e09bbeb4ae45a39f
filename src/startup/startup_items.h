// CStartupItems: where startup entries are looked for — the Run keys (the current user's
// through HKEY_USERS and the user's SID when it is known), the Store key and the two Startup
// folders. The SID is looked up once, at construction.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "startup/startup_item.h"

namespace startup {

inline constexpr wchar_t kRunKeyPath[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kRunKeyPathWow[] = L"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kStoreAppsKeyPath[] =
    L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData";
inline constexpr wchar_t kUserStartupFolder[] =
    L"%userprofile%\\AppData\\Roaming\\Microsoft\\Windows\\Start Menu\\Programs\\Startup\\";
inline constexpr wchar_t kCommonStartupFolder[] =
    L"%allusersprofile%\\Microsoft\\Windows\\Start Menu\\Programs\\Startup\\";

// One place to search: the enumerator and the path given to its GetStartupApps.
using StartupSource = std::pair<std::shared_ptr<IStartupAppsEnumerator>, std::wstring>;
using StartupSourceList = std::vector<StartupSource>;

class CStartupItems {
 public:
  CStartupItems();

  const StartupSourceList& RunKeySources() const { return runKeySources_; }
  // The Store enumerator with the SystemAppData key below HKEY_CLASSES_ROOT, on Windows 8 and
  // later only: older Windows has no Store startup tasks.
  const StartupSourceList& StoreSources() const { return storeSources_; }
  const StartupSourceList& FolderSources() const { return folderSources_; }

  // The console user's SID as a string, through kyusers.dll and LookupAccountNameW; false,
  // `sid` untouched, when the library, the user or the lookup fails.
  [[nodiscard]] static bool GetCrtUserSid(std::wstring& sid);

 private:
  StartupSourceList runKeySources_;
  StartupSourceList storeSources_;
  StartupSourceList folderSources_;
};

}  // namespace startup
