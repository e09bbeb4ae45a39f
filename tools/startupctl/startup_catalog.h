// The entries startupctl shows: what the enumerators find, merged with what the store holds
// as disabled or delayed, and the one action the executor chose for each entry's kind.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "startup/action_exec.h"
#include "startup/startup_items.h"
#include "startup/startup_storage.h"

namespace startupctl {

inline constexpr wchar_t kStateEnabled[] = L"enabled";
inline constexpr wchar_t kStateDisabled[] = L"disabled";
inline constexpr wchar_t kStateDelayed[] = L"delayed";

struct Entry {
  startup::StartupItemPtr item;
  startup::StartupSourceKind kind = startup::kSourceRunKey;
  std::wstring state;      // kStateEnabled, kStateDisabled or kStateDelayed
  bool stored = false;     // the store holds it as disabled or delayed
  std::wstring package;    // a Store task's package full name; empty for other kinds
};

const wchar_t* KindName(startup::StartupSourceKind kind);

class CStartupCatalog {
 public:
  CStartupCatalog(startup::CStartupItems& sources, startup::StartupAppsActionExec& exec,
                  startup::storage::CStartupItemsStorage& store)
      : sources_(sources), exec_(exec), store_(store) {}

  // Every entry found or stored (at most kMaxLoadedItems stored ones), each once; stored
  // entries carry the store's state.
  std::vector<Entry> List();

  // Entries named `name` (without case), and at `location` when it is not empty.
  std::vector<Entry> Find(const std::wstring& name, const std::wstring& location);
  // The same, among the entries of one earlier List.
  static std::vector<Entry> Find(const std::vector<Entry>& entries, const std::wstring& name,
                                 const std::wstring& location);

  // Applies the action with updateStorage true; 0, the action's 31, or 1168 when the kind has
  // no action object. `message` says what changed or why nothing did.
  [[nodiscard]] std::uint32_t Apply(const Entry& entry, const std::wstring& verb, std::wstring& message);

 private:
  void AddStoreTasks(std::vector<Entry>& entries);
  // Entries by kind, name and location (see EntryKey).
  using EntryIndex = std::unordered_map<std::wstring, std::size_t>;
  void AddStored(std::vector<Entry>& entries, EntryIndex& index, const startup::StartupItemList& stored,
                 startup::StartupSourceKind kind, const wchar_t* state);

  startup::CStartupItems& sources_;
  startup::StartupAppsActionExec& exec_;
  startup::storage::CStartupItemsStorage& store_;
};

}  // namespace startupctl
