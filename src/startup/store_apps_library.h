// The user's packaged applications through StoreAppsList.dll, loaded from beside the module
// on first use. A missing library or export is logged once per attempt and lists nothing.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/critical_section.h"
#include "common/module_library.h"
#include "lumera/storeappslist.h"

namespace startup {

inline constexpr std::uint32_t kStoreAppsUnavailable = 1157;  // ERROR_DLL_NOT_FOUND

class CStoreAppsLibrary {
 public:
  // The process-wide instance, which loads the library from the module's own folder.
  static CStoreAppsLibrary& Instance();

  // Loads the library from `path` instead (tests give a missing or a wrong one).
  explicit CStoreAppsLibrary(std::wstring path) : path_(std::move(path)) {}

  // Appends the packages of the user with the string SID `sid`; 0, the library's error, or
  // kStoreAppsUnavailable (logged) when the library or its export cannot be had. `apps` keeps
  // what it held on failure.
  [[nodiscard]] std::uint32_t GetStoreApps(const std::wstring& sid, std::vector<MicrosoftStoreApp>& apps);

 private:
  bool EnsureLoaded();

  std::wstring path_;
  ky::CriticalSection lock_;
  ky::ModuleLibrary library_;
  storeapps::GetStoreAppsOfUserFn getStoreApps_ = nullptr;
};

}  // namespace startup
