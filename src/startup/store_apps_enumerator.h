// MicrosoftStoreAppsEnumerator (kind 2): one item per startup task that a package installed for
// the user declares in its manifest. The item's `name` is the TaskId, its `location` the
// package family's key under SystemAppData in the user's classes
// ("HKEY_USERS\\<SID>\\Software\\Classes\\...\\SystemAppData\\<family>"), its `path` the
// full path of the executable the task starts; `isUser` is 1.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lumera/storeappslist.h"
#include "startup/startup_item.h"

namespace startup {

// A task with what the item does not carry: its package and the manifest's default state.
struct MicrosoftStoreTask {
  StartupItemPtr item;
  std::wstring packageFullName;
  std::wstring familyName;
  std::wstring applicationId;  // with the family, the app's user model id "<family>!<id>"
  // The package's, from the repository or else the manifest; empty when both hold only a
  // resource reference, which only Windows' resource loader can resolve.
  std::wstring displayName;
  std::wstring publisherDisplayName;
  bool manifestEnabled = false;
};

// Where a user's packages come from (the user's string SID): StoreAppsList.dll in the module,
// a list of folders in tests.
using StoreAppsLister = std::function<std::uint32_t(const std::wstring& sid, std::vector<MicrosoftStoreApp>&)>;

// The family name at the end of a task's location; empty when the location has no backslash.
std::wstring FamilyOfLocation(const std::wstring& location);
// The SID of a location under HKEY_USERS ("HKEY_USERS\\<SID>\\..."); empty otherwise.
std::wstring SidOfLocation(const std::wstring& location);

class MicrosoftStoreAppsEnumerator final : public IStartupAppsEnumerator {
 public:
  // The packages of the user with the string SID `sid`; an empty SID lists nothing (31).
  explicit MicrosoftStoreAppsEnumerator(std::wstring sid);
  MicrosoftStoreAppsEnumerator(std::wstring sid, StoreAppsLister lister)
      : sid_(std::move(sid)), lister_(std::move(lister)) {}

  // `path` is the SystemAppData key of the user's classes below HKEY_USERS. Packages without a
  // readable manifest are skipped with a log line. 0, or the lister's error with nothing
  // appended.
  [[nodiscard]] std::uint32_t GetStartupApps(const std::wstring& path, StartupItemList& items) override;
  StartupSourceKind GetSourceKind() const override { return kSourceStoreApp; }

  // As GetStartupApps, with each task's package and manifest default.
  [[nodiscard]] std::uint32_t GetStoreTasks(const std::wstring& path, std::vector<MicrosoftStoreTask>& tasks);

  // The task an item names, looked up again in the packages of its family installed for the
  // user whose hive its location names: 0, 1168 when no installed package of that family
  // declares it any more, 31 when the location names no user, or the lister's error; `task`
  // untouched on failure.
  [[nodiscard]] std::uint32_t FindTask(const StartupItem& item, MicrosoftStoreTask& task);

 private:
  std::uint32_t List(const std::wstring& sid, std::vector<MicrosoftStoreApp>& apps);

  std::wstring sid_;
  StoreAppsLister lister_;
};

}  // namespace startup
