#include "store_check.h"

#include <windows.h>

#include "common/log.h"
#include "startup/startup_storage.h"

namespace startlauncher {
namespace {

struct Section {
  const char* category;
  startup::StartupSourceKind kind;
};
constexpr Section kSections[] = {{startup::kCategoryDisabled, startup::kSourceRunKey},
                                 {startup::kCategoryDelayed, startup::kSourceRunKey},
                                 {startup::kCategoryStartupDisabled, startup::kSourceStartupFolder},
                                 {startup::kCategoryStartupDelayed, startup::kSourceStartupFolder}};

}  // namespace

CheckResult CheckUserStore(const std::wstring& appDataFolder, const startup::StartupAppsActionExec& exec) {
  KY_TRACE(L"startlauncher::CheckUserStore");
  CheckResult result;
  std::wstring path = appDataFolder;
  if (!path.empty() && path.back() != L'\\') path += L'\\';
  path += kStoreRelativePath;
  if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
    KY_LOG(logging::kLevelInfo, L"no store to check at %s", path.c_str());
    return result;
  }
  startup::storage::CStartupItemsStorage store;
  store.Init(path);
  startup::StartupItemList sections[std::size(kSections)];
  for (std::size_t i = 0; i < std::size(kSections); ++i) {
    if (store.LoadStartupItems(kSections[i].category, sections[i]) != 0) {
      KY_LOG(logging::kLevelError, L"store %s cannot be read; nothing changed", path.c_str());
      return result;
    }
  }
  result.storeRead = true;
  for (std::size_t i = 0; i < std::size(kSections); ++i) {
    startup::IStartupAppsActions* actions = exec.Find(kSections[i].kind);
    startup::StartupItemList stale;
    for (const startup::StartupItemPtr& item : sections[i]) {
      if (actions == nullptr || actions->Check(*item) == startup::kActionOk) {
        ++result.kept;
        continue;
      }
      KY_LOG(logging::kLevelInfo, L"dropped %S %s %s", kSections[i].category, item->location.c_str(),
             item->name.c_str());
      stale.push_back(item);
    }
    if (stale.empty()) continue;
    if (store.RemoveStartupItems(stale, kSections[i].category) != 0) {
      KY_LOG(logging::kLevelError, L"store %s could not be written", path.c_str());
      ++result.failedWrites;
      continue;
    }
    result.dropped += static_cast<std::uint32_t>(stale.size());
  }
  KY_LOG(logging::kLevelInfo, L"checked %s: kept %d, dropped %d", path.c_str(), result.kept, result.dropped);
  return result;
}

}  // namespace startlauncher
