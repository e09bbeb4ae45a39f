#include "startup_catalog.h"

#include <windows.h>

#include <algorithm>
#include <cwctype>

#include "startup/store_apps_actions.h"
#include "startup/store_apps_enumerator.h"
#include "startup/store_startup_item.h"
#include "startup/win8_startup_item.h"

namespace startupctl {
namespace {

using startup::StartupItemList;
using startup::StartupItemPtr;

std::wstring Lower(std::wstring text) {
  std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
  return text;
}

// Locations compare without case and without a trailing backslash.
std::wstring LocationKey(const std::wstring& location) {
  std::wstring key = Lower(location);
  while (!key.empty() && key.back() == L'\\') key.pop_back();
  return key;
}

// Two entries are the same when their kinds and keys are equal.
std::wstring EntryKey(startup::StartupSourceKind kind, const startup::StartupItem& item) {
  return std::to_wstring(kind) + L'\n' + Lower(item.name) + L'\n' + LocationKey(item.location);
}

}  // namespace

const wchar_t* KindName(startup::StartupSourceKind kind) {
  switch (kind) {
    case startup::kSourceRunKey: return L"run";
    case startup::kSourceStartupFolder: return L"folder";
    case startup::kSourceStoreApp: return L"store";
    default: return L"unknown";
  }
}

void CStartupCatalog::AddStored(std::vector<Entry>& entries, EntryIndex& index, const StartupItemList& stored,
                                startup::StartupSourceKind kind, const wchar_t* state) {
  for (const StartupItemPtr& item : stored) {
    const auto [at, added] = index.emplace(EntryKey(kind, *item), entries.size());
    if (added) {
      entries.push_back(Entry{item, kind, state, true, {}});
    } else {
      entries[at->second].state = state;
      entries[at->second].stored = true;
    }
  }
}

void CStartupCatalog::AddStoreTasks(std::vector<Entry>& entries) {
  for (const auto& [enumerator, path] : sources_.StoreSources()) {
    auto* store = dynamic_cast<startup::MicrosoftStoreAppsEnumerator*>(enumerator.get());
    if (store == nullptr) continue;
    std::vector<startup::MicrosoftStoreTask> tasks;
    (void)store->GetStoreTasks(path, tasks);  // a missing library is logged and lists nothing
    for (const auto& task : tasks) {
      bool enabled = false;
      const std::uint32_t read = startup::MicrosoftStoreStartupItem::IsEnabled(*task.item, enabled, *store);
      const wchar_t* state = read != 0 ? L"unknown" : enabled ? kStateEnabled : kStateDisabled;
      entries.push_back(Entry{task.item, startup::kSourceStoreApp, state, false, task.packageFullName});
    }
  }
}

std::vector<Entry> CStartupCatalog::List() {
  std::vector<Entry> entries;
  const bool win8 = exec_.IsWindows8OrGreater();
  for (const auto* sources : {&sources_.RunKeySources(), &sources_.FolderSources()}) {
    for (const auto& [enumerator, path] : *sources) {
      StartupItemList items;
      (void)enumerator->GetStartupApps(path, items);  // a missing key or folder lists nothing
      const auto kind = enumerator->GetSourceKind();
      for (const StartupItemPtr& item : items) {
        const bool enabled = !win8 || startup::Win8StartupItem::IsEnabled(*item, kind);
        entries.push_back(Entry{item, kind, enabled ? kStateEnabled : kStateDisabled, false, {}});
      }
    }
  }
  AddStoreTasks(entries);
  // Only the first of several equal entries found in the sources takes the stored state.
  EntryIndex index;
  for (std::size_t i = entries.size(); i-- > 0;) index[EntryKey(entries[i].kind, *entries[i].item)] = i;
  // The store is read back as the report reads it: once, at most kMaxLoadedItems records in all.
  const struct {
    const char* category;
    startup::StartupSourceKind kind;
    const wchar_t* state;
  } sections[] = {
      {startup::kCategoryDisabled, startup::kSourceRunKey, kStateDisabled},
      {startup::kCategoryStartupDisabled, startup::kSourceStartupFolder, kStateDisabled},
      {startup::kCategoryDelayed, startup::kSourceRunKey, kStateDelayed},
      {startup::kCategoryStartupDelayed, startup::kSourceStartupFolder, kStateDelayed},
      {startup::kCategoryStoreDisabled, startup::kSourceStoreApp, kStateDisabled},
      {startup::kCategoryStoreDelayed, startup::kSourceStoreApp, kStateDelayed},
  };
  std::vector<std::string> names;
  for (const auto& section : sections) names.emplace_back(section.category);
  std::vector<StartupItemList> stored;
  (void)store_.LoadSections(names, stored);  // an unreadable store adds nothing
  for (std::size_t i = 0; i < stored.size(); ++i) {
    AddStored(entries, index, stored[i], sections[i].kind, sections[i].state);
  }
  return entries;
}

std::vector<Entry> CStartupCatalog::Find(const std::wstring& name, const std::wstring& location) {
  return Find(List(), name, location);
}

std::vector<Entry> CStartupCatalog::Find(const std::vector<Entry>& entries, const std::wstring& name,
                                         const std::wstring& location) {
  std::vector<Entry> found;
  const std::wstring lowerName = Lower(name);
  for (const Entry& entry : entries) {
    if (Lower(entry.item->name) != lowerName) continue;
    if (!location.empty() && LocationKey(entry.item->location) != LocationKey(location)) continue;
    found.push_back(entry);
  }
  return found;
}

std::uint32_t CStartupCatalog::Apply(const Entry& entry, const std::wstring& verb, std::wstring& message) {
  startup::IStartupAppsActions* actions = exec_.Find(entry.kind);
  if (actions == nullptr) {
    message = L"no action for entries of kind " + std::wstring(KindName(entry.kind));
    return ERROR_NOT_FOUND;
  }
  const std::wstring target = verb == L"enable" ? kStateEnabled : verb == L"delay" ? kStateDelayed : kStateDisabled;
  if (entry.state == target) {
    message = L"already " + target;
    return 0;
  }
  const StartupItemList items{entry.item};
  // A stored entry in the other put-aside state is brought back before it is put aside anew.
  if (target == kStateEnabled || entry.stored) {
    if (actions->Enable(items, true) != 0) {
      message = L"enable failed";
      return startup::kActionFailed;
    }
  }
  std::uint8_t result = 0;
  if (target == kStateDisabled) result = actions->Disable(items, true);
  if (target == kStateDelayed) result = actions->Delay(items, true);
  if (result != 0) {
    message = verb + L" failed";
    return result;
  }
  message = entry.state + L" -> " + target;
  return 0;
}

}  // namespace startupctl
