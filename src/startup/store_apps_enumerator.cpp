#include "startup/store_apps_enumerator.h"

#include <windows.h>

#include <cwchar>

#include "common/log.h"
#include "startup/registry_root.h"
#include "startup/store_apps_library.h"
#include "startup/store_manifest.h"

namespace startup {
namespace {

// Display texts that Windows resolves through the package's resources, which we cannot.
bool IsResourceReference(const std::wstring& text) {
  return text.rfind(L"@{", 0) == 0 || text.rfind(L"ms-resource:", 0) == 0;
}

std::wstring FirstReadable(const std::wstring& first, const std::wstring& second) {
  if (!first.empty() && !IsResourceReference(first)) return first;
  if (!second.empty() && !IsResourceReference(second)) return second;
  return {};
}

// The tasks of one package, or none (logged) when its manifest cannot be read.
void AddTasksOfPackage(const MicrosoftStoreApp& app, const std::wstring& path, std::vector<MicrosoftStoreTask>& tasks) {
  KY_TRACE(L"MicrosoftStoreAppsEnumerator::AddTasksOfPackage");
  StoreManifest manifest;
  const std::uint32_t read = ReadStoreManifest(app.rootFolder, manifest);
  if (read != 0) {
    KY_LOG(logging::kLevelWarning, L"Failed read manifest of %s in %s 0x%x", app.fullName, app.rootFolder, read);
    return;
  }
  const std::wstring family = app.familyName;
  for (StoreStartupTask& declared : manifest.tasks) {
    auto item = std::make_shared<StartupItem>();
    item->name = declared.taskId;
    item->location = std::wstring(RegistryRootName(HKEY_USERS)) + L"\\" + path + L"\\" + family;
    item->path = declared.executable;
    item->isUser = 1;
    MicrosoftStoreTask task;
    task.item = std::move(item);
    task.packageFullName = app.fullName;
    task.familyName = family;
    task.displayName = FirstReadable(app.displayName, manifest.displayName);
    task.publisherDisplayName = FirstReadable(app.publisherDisplayName, manifest.publisherDisplayName);
    task.manifestEnabled = declared.enabled;
    task.applicationId = declared.applicationId;
    tasks.push_back(std::move(task));
  }
}

}  // namespace

std::wstring FamilyOfLocation(const std::wstring& location) {
  const std::size_t slash = location.find_last_of(L'\\');
  return slash == std::wstring::npos ? std::wstring() : location.substr(slash + 1);
}

std::wstring SidOfLocation(const std::wstring& location) {
  HKEY root = nullptr;
  std::wstring subkey;
  if (!SplitRegistryLocation(location, root, subkey) || root != HKEY_USERS) return {};
  return subkey.substr(0, subkey.find(L'\\'));
}

MicrosoftStoreAppsEnumerator::MicrosoftStoreAppsEnumerator(std::wstring sid)
    : MicrosoftStoreAppsEnumerator(std::move(sid), [](const std::wstring& user, std::vector<MicrosoftStoreApp>& apps) {
        return CStoreAppsLibrary::Instance().GetStoreApps(user, apps);
      }) {}

std::uint32_t MicrosoftStoreAppsEnumerator::List(const std::wstring& sid, std::vector<MicrosoftStoreApp>& apps) {
  KY_TRACE(L"MicrosoftStoreAppsEnumerator::List");
  if (sid.empty()) {
    KY_LOG(logging::kLevelError, L"no user SID: no packages");
    return kActionFailed;
  }
  return lister_(sid, apps);
}

std::uint32_t MicrosoftStoreAppsEnumerator::GetStoreTasks(const std::wstring& path,
                                                          std::vector<MicrosoftStoreTask>& tasks) {
  KY_TRACE(L"MicrosoftStoreAppsEnumerator::GetStoreTasks");
  std::vector<MicrosoftStoreApp> apps;
  const std::uint32_t listed = List(sid_, apps);
  if (listed != 0) return listed;
  for (const MicrosoftStoreApp& app : apps) AddTasksOfPackage(app, path, tasks);
  return 0;
}

std::uint32_t MicrosoftStoreAppsEnumerator::GetStartupApps(const std::wstring& path, StartupItemList& items) {
  KY_TRACE(L"MicrosoftStoreAppsEnumerator::GetStartupApps");
  std::vector<MicrosoftStoreTask> tasks;
  const std::uint32_t result = GetStoreTasks(path, tasks);
  for (MicrosoftStoreTask& task : tasks) items.push_back(std::move(task.item));
  return result;
}

std::uint32_t MicrosoftStoreAppsEnumerator::FindTask(const StartupItem& item, MicrosoftStoreTask& task) {
  KY_TRACE(L"MicrosoftStoreAppsEnumerator::FindTask");
  const std::wstring family = FamilyOfLocation(item.location);
  std::vector<MicrosoftStoreApp> apps;
  const std::uint32_t listed = List(SidOfLocation(item.location), apps);
  if (listed != 0) return listed;
  for (const MicrosoftStoreApp& app : apps) {
    if (family.empty() || _wcsicmp(family.c_str(), app.familyName) != 0) continue;
    std::vector<MicrosoftStoreTask> tasks;
    AddTasksOfPackage(app, L"", tasks);
    for (MicrosoftStoreTask& found : tasks) {
      if (found.item->name != item.name) continue;
      found.item->location = item.location;
      task = std::move(found);
      return 0;
    }
  }
  return ERROR_NOT_FOUND;
}

}  // namespace startup
