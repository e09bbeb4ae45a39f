#include "plugin/plugin_startup_manager.h"

#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <map>
#include <vector>

#include "common/log.h"
#include "startup/application.h"
#include "startup/long_path.h"
#include "startup/startup_storage.h"
#include "startup/store_apps_actions.h"
#include "startup/store_apps_enumerator.h"
#include "startup/target_memo.h"
#include "users/ky_users.h"

namespace boottime {
namespace {

using startup::kStatusDelayed;
using startup::kStatusDisabled;
using startup::kStatusEnabled;
using startup::StartupItemEx;

constexpr std::size_t kStopCheckRecords = 256;

struct StoreSection {
  const char* name;
  startup::StartupSourceKind kind;
  std::int32_t status;
};
constexpr StoreSection kStoreSections[] = {
    {startup::kCategoryDisabled, startup::kSourceRunKey, kStatusDisabled},
    {startup::kCategoryStartupDisabled, startup::kSourceStartupFolder, kStatusDisabled},
    {startup::kCategoryDelayed, startup::kSourceRunKey, kStatusDelayed},
    {startup::kCategoryStartupDelayed, startup::kSourceStartupFolder, kStatusDelayed},
    {startup::kCategoryStoreDisabled, startup::kSourceStoreApp, kStatusDisabled},
    {startup::kCategoryStoreDelayed, startup::kSourceStoreApp, kStatusDelayed},
};

std::wstring FileNameOf(const std::wstring& path) {
  const std::size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

// A Store app is named and owned as its package presents itself, where the package's texts
// are readable; otherwise as its executable's version resource says.
void NameStoreApp(const startup::StartupItem& item, StartupItemEx& entry) {
  startup::MicrosoftStoreAppsEnumerator packages(startup::SidOfLocation(item.location));
  startup::MicrosoftStoreTask task;
  if (packages.FindTask(item, task) != 0) return;
  if (!task.displayName.empty()) entry.name = task.displayName;
  if (!task.publisherDisplayName.empty()) entry.owner = task.publisherDisplayName;
}

}  // namespace

std::unique_ptr<CConnectorLibrary> CPluginStartupManager::LoadConnector(const std::wstring& path) {
  auto connector = std::make_unique<CConnectorLibrary>();
  if (connector->Load(path) != 0 || connector->Client()->Init(0) != 0 || connector->Client()->Start() != 0) {
    return nullptr;
  }
  return connector;
}

CPluginStartupManager::CPluginStartupManager(startup::CAppsFilter::ProductInfoSource productInfo,
                                             const std::wstring& connectorPath, std::wstring agentLibrary)
    : CPluginStartupManager(LoadConnector(connectorPath), std::move(productInfo), std::move(agentLibrary)) {}

CPluginStartupManager::CPluginStartupManager(std::unique_ptr<CConnectorLibrary> connector,
                                             startup::CAppsFilter::ProductInfoSource productInfo,
                                             std::wstring agentLibrary)
    : CBaseStartupManager(connector ? connector->Client() : nullptr),
      connector_(std::move(connector)),
      filter_(std::move(productInfo), std::move(agentLibrary)) {}

CPluginStartupManager::~CPluginStartupManager() {
  // The connection goes before the connector library that made it.
  Uninit();
  if (connector_) (void)connector_->Client()->Stop();
}

bool CPluginStartupManager::Init() {
  KY_TRACE(L"boottime::CPluginStartupManager::Init");
  (void)CBaseStartupManager::Init();
  sources_ = std::make_unique<startup::CStartupItems>();
  exec_ = std::make_unique<startup::StartupAppsActionExec>();
  (void)PlaceStore();
  return true;
}

// A service's own roaming folder (and the host's folder) is the service's, not the user's: the
// store is placed only in the user's folder, read through the user's token, and without a user
// the step fails and is tried again at the next build.
std::uint32_t CPluginStartupManager::PlaceStore() {
  KY_TRACE(L"boottime::CPluginStartupManager::PlaceStore");
  std::wstring folder;
  std::uint32_t placed = 0;
  {
    velora::utils::CUserImpersonation impersonation;
    placed = startup::storage::UserStorageFolder(sources_ ? sources_->User().get() : nullptr, folder);
  }
  storageFolder_ = folder;
  startup::storage::CStartupItemsStorage::Instance().Init(placed == 0 ? folder + startup::storage::kStorageFileName
                                                                      : std::wstring());
  return placed;
}

// Attribution: an item belongs to the app of the file it starts, keyed by that file's full
// path, so every entry that starts one program is one app. An item whose file has no version
// resource (or cannot be found) belongs to no app and is left out of the report, as unknown
// files are; its store record, if any, is kept. The app is named by the file's description,
// else its product name, else its file name, and owned by its company (empty when absent).
// Its status is that of the last item filed under it: enumerated entries come first as
// enabled, then the store's disabled sections, then its delayed ones.
bool CPluginStartupManager::AddApp(const startup::StartupItemPtr& item, startup::StartupSourceKind kind,
                                   std::int32_t status) {
  KY_TRACE(L"boottime::CPluginStartupManager::AddApp");
  // The command of a stored item names the moved file itself, so no state is passed.
  startup::Application app;
  if (!app.Init(*item, kind, 0)) {
    KY_LOG(logging::kLevelInfo, L"no application for %s %s", item->location.c_str(), item->name.c_str());
    return false;
  }
  auto& entry = apps_[app.path];
  if (!entry) {
    entry = std::make_shared<StartupItemEx>();
    entry->name = !app.description.empty() ? app.description : !app.product.empty() ? app.product : FileNameOf(app.path);
    entry->owner = app.company;
    entry->qid = app.qid;
    entry->location = app.location;
    entry->path = app.path;
    entry->isUser = item->isUser;
    entry->isStore = app.isStore;
    if (app.isStore) NameStoreApp(*item, *entry);
  }
  entry->status = status;
  entry->items.emplace_back(item, kind);
  return true;
}

void CPluginStartupManager::Enumerate(const startup::StartupSourceList& sources) {
  KY_TRACE(L"boottime::CPluginStartupManager::Enumerate");
  for (const auto& [enumerator, path] : sources) {
    startup::StartupItemList items;
    const std::uint32_t result = enumerator->GetStartupApps(path, items);
    if (result != 0) KY_LOG(logging::kLevelDebug, L"GetStartupApps %s 0x%x", path.c_str(), result);
    for (const auto& item : items) (void)AddApp(item, enumerator->GetSourceKind(), kStatusEnabled);
  }
}

// At most kMaxLoadedItems records are read back over all sections together, from one reading
// of the file, so that a store a user filled by hand costs the report a bounded time; the stop
// event is looked at every kStopCheckRecords records.
void CPluginStartupManager::ReadBackStore() {
  auto& store = startup::storage::CStartupItemsStorage::Instance();
  std::vector<std::string> names;
  for (const auto& section : kStoreSections) names.emplace_back(section.name);
  std::vector<startup::StartupItemList> lists;
  (void)store.LoadSections(names, lists);  // an unreadable store adds nothing
  for (std::size_t i = 0; i < lists.size(); ++i) {
    const StoreSection& section = kStoreSections[i];
    const startup::StartupItemList& stored = lists[i];
    startup::IStartupAppsActions* actions = exec_->Find(section.kind);
    if (actions == nullptr) continue;
    startup::StartupItemList gone;
    std::size_t checked = 0;
    for (const auto& item : stored) {
      if (++checked % kStopCheckRecords == 0 && StopRequested()) return;
      if (actions->Check(*item) != 0) {
        gone.push_back(item);
        continue;
      }
      (void)AddApp(item, section.kind, section.status);
    }
    if (!gone.empty()) (void)store.RemoveStartupItems(gone, section.name);
  }
  // The maker's own apps stay out even when the store names them.
  FilterApps(filter_);
}

// Boot times, taken from the store's "boot_time" records: a record belongs to the app whose
// key is its path, compared without regard to ASCII case; when several name one app, the last
// one counts. The boot's own measurement replaces them (ApplyBootImpacts).
void CPluginStartupManager::ApplyBootTimes(const std::vector<startup::storage::BootTimeRecord>& records) {
  for (auto& [key, app] : apps_) {
    const std::wstring lowerKey = startup::LowerAscii(key);
    for (const auto& record : records) {
      if (startup::LowerAscii(record.path) == lowerKey) app->time = record.time;
    }
  }
}

// Boot times measured in the last boot: an app's time is the processor time (kernel + user,
// ms) of every process of that boot whose image is the app's file, summed over its instances.
// The image path and the app's key (the long form of the file an entry starts) are compared
// whole and without regard to case, as Windows compares paths: the Startup folder is "Startup"
// to the shell and "StartUp" in the image paths of what it started. An image path in short
// (8.3) form is compared in its long form. An app that none of the boot's processes ran keeps
// the store's time.
void CPluginStartupManager::ApplyBootImpacts() {
  if (impacts_.empty()) return;
  const auto samePath = [](const std::wstring& a, const std::wstring& b) {
    return a.size() == b.size() &&
           ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
               CSTR_EQUAL;
  };
  std::map<std::wstring, std::uint64_t> measured;
  for (const auto& process : impacts_) {
    std::wstring image = process.name;
    if (image.empty()) continue;
    if (image.find(L'~') != std::wstring::npos) (void)startup::LongPathName(process.name, image);
    for (const auto& [key, app] : apps_) {
      if (!samePath(key, image)) continue;
      measured[key] += std::uint64_t{process.kernel} + process.user;
      break;
    }
  }
  for (const auto& [key, time] : measured) {
    apps_[key]->time = static_cast<std::uint32_t>(std::min<std::uint64_t>(time, UINT32_MAX));
  }
}

std::uint32_t CPluginStartupManager::BuildAndReport() {
  KY_TRACE(L"boottime::CPluginStartupManager::BuildAndReport");
  if (!sources_ || !exec_) return ERROR_NOT_READY;
  // The user may have logged on since the last build: the sources and the store follow them.
  if (!sources_->User() || storageFolder_.empty()) {
    sources_ = std::make_unique<startup::CStartupItems>();
    if (const std::uint32_t placed = PlaceStore(); placed != 0) {
      KY_LOG(logging::kLevelError, L"no store of the user 0x%x: nothing reported", placed);
      return placed;
    }
  }
  apps_.clear();
  if (StopRequested()) return ERROR_OPERATION_ABORTED;
  std::vector<startup::storage::BootTimeRecord> records;
  {
    // The store lives in the user's folder and its commands are the user's: it is read,
    // checked and rewritten as the user, so a link the user puts there cannot steer
    // LocalSystem's write and no stored path is opened with the machine's identity.
    velora::utils::CUserImpersonation impersonation;
    startup::CTargetMemoScope described;
    Enumerate(sources_->RunKeySources());
    if (StopRequested()) return ERROR_OPERATION_ABORTED;
    Enumerate(sources_->FolderSources());
    if (StopRequested()) return ERROR_OPERATION_ABORTED;
    Enumerate(sources_->StoreSources());
    if (StopRequested()) return ERROR_OPERATION_ABORTED;
    filter_.Init();
    FilterApps(filter_);
    if (StopRequested()) return ERROR_OPERATION_ABORTED;
    ReadBackStore();
    if (StopRequested()) return ERROR_OPERATION_ABORTED;
    (void)startup::storage::CStartupItemsStorage::Instance().LoadBootTime(records);
  }
  ApplyBootTimes(records);
  ApplyBootImpacts();

  startup::AppList list;
  list.reserve(apps_.size());
  for (const auto& [key, app] : apps_) list.push_back(app);
  return SendReportToCentral(list);
}

}  // namespace boottime
