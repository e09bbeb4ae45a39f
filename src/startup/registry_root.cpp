#include "startup/registry_root.h"

#include <map>

namespace startup {
namespace {

struct RootName {
  HKEY root;
  const wchar_t* name;
};

const RootName kRoots[] = {
    {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER"}, {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE"},
    {HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT"}, {HKEY_USERS, L"HKEY_USERS"},
    {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG"},
};

}  // namespace

const wchar_t* RegistryRootName(HKEY root) {
  for (const RootName& entry : kRoots) {
    if (entry.root == root) return entry.name;
  }
  return kUnknownRootName;
}

HKEY RegistryRootFromName(const std::wstring& name) {
  static const std::map<std::wstring, HKEY> byName = [] {
    std::map<std::wstring, HKEY> map;
    for (const RootName& entry : kRoots) map.emplace(entry.name, entry.root);
    return map;
  }();
  const auto it = byName.find(name);
  return it == byName.end() ? nullptr : it->second;
}

bool SplitRegistryLocation(const std::wstring& location, HKEY& root, std::wstring& subkey) {
  const std::size_t slash = location.find(L'\\');
  if (slash == std::wstring::npos) return false;
  const HKEY found = RegistryRootFromName(location.substr(0, slash));
  if (found == nullptr) return false;
  root = found;
  subkey = location.substr(slash + 1);
  return true;
}

}  // namespace startup
