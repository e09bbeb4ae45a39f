// The boot history of the plug-in: the record of a measured boot with the startup entries as
// they stood at that boot, its append under the file's lock, and the history query.
#include <windows.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>

#include "boottime/boot_history_listener.h"
#include "common/json_file.h"
#include "common/log.h"
#include "common/plugin_ref.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"
#include "plugin/boottime_plugin.h"
#include "startup/apps_filter.h"
#include "startup/command_target.h"
#include "startup/startup_items.h"
#include "startup/startup_storage.h"
#include "startup/storage_lock.h"
#include "startup/store_apps_actions.h"
#include "users/ky_users.h"
#include "users/user_profile.h"

namespace boottime {
namespace {

struct StoreSection {
  const char* name;
  const wchar_t* kind;
  StartupState state;
};
constexpr StoreSection kStoreSections[] = {
    {startup::kCategoryDisabled, L"run", StartupState::kDisabled},
    {startup::kCategoryStartupDisabled, L"folder", StartupState::kDisabled},
    {startup::kCategoryStoreDisabled, L"store", StartupState::kDisabled},
    {startup::kCategoryDelayed, L"run", StartupState::kDelayed},
    {startup::kCategoryStartupDelayed, L"folder", StartupState::kDelayed},
    {startup::kCategoryStoreDelayed, L"store", StartupState::kDelayed},
};

const wchar_t* KindName(startup::StartupSourceKind kind) {
  return kind == startup::kSourceRunKey ? L"run" : kind == startup::kSourceStartupFolder ? L"folder" : L"store";
}

std::wstring Lower(std::wstring text) {
  if (!text.empty()) ::CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
  return text;
}

std::wstring FileNameOf(const std::wstring& path) {
  const std::size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

// The program an entry starts, as its owner's environment resolves it; the command itself when
// it cannot be resolved.
std::wstring TargetOf(const startup::StartupItem& item) {
  std::wstring target;
  const auto environment = startup::EnvironmentOf(item);
  if (!environment || !startup::ResolveCommandTarget(item.path, target, *environment)) target = item.path;
  return target;
}

// What an entry's program cost at this boot: the processes whose image is the entry's target,
// compared whole when the target is a full path and by file name otherwise, without regard to
// case; summed over its instances.
std::optional<HistoryImpact> ImpactOf(const std::wstring& resolved, const std::vector<ProcessImpact>& impacts) {
  const std::wstring target = Lower(resolved);
  const bool fullPath = target.find(L'\\') != std::wstring::npos;
  std::optional<HistoryImpact> sum;
  for (const ProcessImpact& process : impacts) {
    const std::wstring image = Lower(process.name);
    if (image.empty() || (fullPath ? image != target : FileNameOf(image) != FileNameOf(target))) continue;
    if (!sum) sum.emplace();
    sum->cpuMs = static_cast<std::uint32_t>(std::min<std::uint64_t>(
        std::uint64_t{sum->cpuMs} + process.kernel + process.user, UINT32_MAX));
    sum->bytesRead = static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{sum->bytesRead} + process.read, UINT32_MAX));
    sum->bytesWritten =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{sum->bytesWritten} + process.write, UINT32_MAX));
  }
  return sum;
}

// The console user's and the machine's entries: enumerated ones are enabled unless the user's
// store files them as disabled or delayed (on Windows 8 and later a disabled entry stays in place).
// The product's own programs stay out, as they stay out of the report and the listing.
std::vector<HistoryEntry> ListStartupEntries(const std::vector<ProcessImpact>& impacts, const startup::CAppsFilter& own,
                                             std::wstring& user) {
  KY_TRACE(L"boottime::ListStartupEntries");
  startup::CStartupItems sources;
  if (sources.User()) user = sources.User()->UserName();
  std::map<std::wstring, HistoryEntry> entries;  // by kind, location and name
  const auto add = [&](const startup::StartupItem& item, const wchar_t* kind, StartupState state) {
    const std::wstring target = TargetOf(item);
    if (own.Matches(target)) return;
    HistoryEntry& entry = entries[std::wstring(kind) + L'|' + Lower(item.location) + L'|' + Lower(item.name)];
    entry.name = item.name;
    entry.kind = kind;
    entry.state = state;
    entry.impact = ImpactOf(target, impacts);
  };
  // The user's Run keys, folders and store are read as the user, as the startup manager does.
  velora::utils::CUserImpersonation impersonation;
  for (const auto* list : {&sources.RunKeySources(), &sources.FolderSources(), &sources.StoreSources()}) {
    for (const auto& [enumerator, path] : *list) {
      startup::StartupItemList items;
      (void)enumerator->GetStartupApps(path, items);
      for (const auto& item : items) add(*item, KindName(enumerator->GetSourceKind()), StartupState::kEnabled);
    }
  }
  std::wstring folder;
  if (startup::storage::UserStorageFolder(sources.User().get(), folder) == 0) {
    picojson::value document;
    std::string error;
    if (ky::ReadJsonFile(folder + startup::storage::kStorageFileName, document, error) == ky::JsonReadResult::kOk) {
      for (const StoreSection& section : kStoreSections) {
        startup::StartupItemList stored;
        startup::storage::ReadSection(document, startup::storage::kUserKey, section.name, 1, stored);
        startup::storage::ReadSection(document, startup::storage::kSystemKey, section.name, 0, stored);
        for (const auto& item : stored) add(*item, section.kind, section.state);
      }
    }
  }
  std::vector<HistoryEntry> list;
  for (auto& [key, entry] : entries) {
    if (list.size() == kHistoryMaxEntries) break;
    list.push_back(std::move(entry));
  }
  return list;
}

std::uint32_t Thousandths(double percent) {
  if (!(percent > 0)) return 0;
  return static_cast<std::uint32_t>(std::min(std::llround(percent * 1000), std::int64_t{UINT32_MAX}));
}

}  // namespace

std::wstring CBootTimePlugin::HistoryFile() const { return settingsFolder_ + kBootHistoryFileName; }

std::optional<BootRecord> CBootTimePlugin::MeasuredBootRecord() {
  KY_TRACE(L"boottime::CBootTimePlugin::MeasuredBootRecord");
  if (!measuredRun_) return std::nullopt;
  BootRecord record;
  record.systemStart = SystemStartTime(clock_);
  (void)monitor_.Result(&record.bootTime);
  const BootTimeMonitor::Ending ending = monitor_.LastEnding();
  record.end = ending.end;
  record.windowsBootTime = ending.windowsBootTime;
  record.logonTime = ending.logonTime;
  ky::List<ProcessImpact> list;
  (void)analyser_.GetImpacts(nullptr, list);
  std::vector<ProcessImpact>& impacts = list.Items();
  for (const ProcessImpact& impact : impacts) {
    record.cpuMs += std::uint64_t{impact.kernel} + impact.user;
    record.bytesRead += impact.read;
    record.bytesWritten += impact.write;
  }
  record.processes = static_cast<std::uint32_t>(impacts.size());
  DiskSpeed disk;
  if (diskPerformance_.GetResult(&disk) == kStatusAvailable) {
    record.diskMin = Thousandths(disk.minimum);
    record.diskMax = Thousandths(disk.maximum);
    record.diskAverage = Thousandths(disk.average);
  }
  ky::PluginRef<IProductInfo> info;
  if (componentManager_ != nullptr) {
    (void)info.Acquire(componentManager_, lumera::kProductInfoName, lumera::ids::ProductInfoPlugin);
  }
  IProductInfo* product = info.get();
  startup::CAppsFilter own([product] { return product; });
  own.Init();
  record.entries = ListStartupEntries(impacts, own, record.user);
  std::vector<ProcessImpact> heaviest = impacts;
  const auto weight = [](const ProcessImpact& i) { return std::uint64_t{i.kernel} + i.user; };
  std::stable_sort(heaviest.begin(), heaviest.end(), [&](const ProcessImpact& a, const ProcessImpact& b) {
    return weight(a) != weight(b) ? weight(a) > weight(b) : std::uint64_t{a.read} + a.write > std::uint64_t{b.read} + b.write;
  });
  for (std::size_t i = 0; i < heaviest.size() && i < kHistoryTopImpacts; ++i) {
    const ProcessImpact& p = heaviest[i];
    record.top.push_back(HistoryImpact{p.name, static_cast<std::uint32_t>(std::min<std::uint64_t>(weight(p), UINT32_MAX)),
                                       p.read, p.write});
  }
  return record;
}

std::uint32_t CBootTimePlugin::AppendHistory(const BootRecord& record) {
  // The store's lock convention: a named lock per file, so a tool reading and rewriting the
  // history meanwhile cannot lose this record.
  const std::wstring path = HistoryFile();
  startup::storage::CStoreLock lock(path);
  if (!lock.Held()) return ERROR_TIMEOUT;
  const std::uint32_t appended = AppendBootRecord(path, record);
  std::lock_guard hold(historyLock_);
  historyLines_.reset();
  return appended;
}

std::uint32_t CBootTimePlugin::GetBootHistory(std::uint32_t count, ky::IList<std::string>* records) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootHistory");
  if (records == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimePlugin::GetBootHistory", ky::kGeneralFailure, ky::kOutOfMemory,
                     [&]() -> std::uint32_t {
                       std::lock_guard hold(historyLock_);
                       if (!historyLines_) {
                         HistoryDocument history;
                         if (const std::uint32_t read = ReadBootHistory(HistoryFile(), history); read != 0) {
                           KY_LOG(logging::kLevelError, L"boot history unreadable 0x%x", read);
                           return read;
                         }
                         historyLines_.emplace();
                         for (const BootRecord& record : history.records) {
                           historyLines_->push_back(EncodeBootRecord(record));
                         }
                       }
                       const std::vector<std::string>& lines = *historyLines_;
                       const std::size_t first = count == 0 || count >= lines.size() ? 0 : lines.size() - count;
                       for (std::size_t i = first; i < lines.size(); ++i) records->Add(lines[i]);
                       return 0;
                     });
}

}  // namespace boottime
