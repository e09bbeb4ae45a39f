#include "startup/store_startup_item.h"

#include <string>

#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/registry_root.h"
#include "startup/store_apps_enumerator.h"

namespace startup {
namespace {

// The task's key: the family key of the location, then the TaskId.
bool TaskKey(const StartupItem& item, HKEY& root, std::wstring& subkey) {
  if (item.name.empty() || item.name.find(L'\\') != std::wstring::npos) return false;
  if (!SplitRegistryLocation(item.location, root, subkey) || root == nullptr) return false;
  subkey += L"\\" + item.name;
  return true;
}

bool IsPolicyState(DWORD state) { return state == kStoreStateDisabledByPolicy || state == kStoreStateEnabledByPolicy; }

}  // namespace

std::uint32_t MicrosoftStoreStartupItem::ReadState(const StartupItem& item, DWORD& state) {
  HKEY root = nullptr;
  std::wstring subkey;
  if (!TaskKey(item, root, subkey)) return kActionFailed;
  DWORD value = 0;
  DWORD bytes = sizeof(value);
  const LSTATUS read = ::RegGetValueW(root, subkey.c_str(), kStoreStateValue, RRF_RT_REG_DWORD, nullptr, &value, &bytes);
  if (read == ERROR_UNSUPPORTED_TYPE) return ERROR_INVALID_DATA;
  if (read != ERROR_SUCCESS) return static_cast<std::uint32_t>(read);
  state = value;
  return 0;
}

std::uint32_t MicrosoftStoreStartupItem::IsEnabled(const StartupItem& item, bool& enabled,
                                                   MicrosoftStoreAppsEnumerator& packages) {
  KY_TRACE(L"MicrosoftStoreStartupItem::IsEnabled");
  DWORD state = 0;
  const std::uint32_t read = ReadState(item, state);
  if (read == ERROR_FILE_NOT_FOUND) {
    MicrosoftStoreTask task;
    const std::uint32_t found = packages.FindTask(item, task);
    if (found != 0) return found;
    enabled = task.manifestEnabled;
    return 0;
  }
  if (read != 0) return read;
  if (state > kStoreStateEnabledByPolicy) return ERROR_INVALID_DATA;
  enabled = state == kStoreStateEnabled || state == kStoreStateEnabledByPolicy;
  return 0;
}

std::uint32_t MicrosoftStoreStartupItem::IsEnabled(const StartupItem& item, bool& enabled) {
  MicrosoftStoreAppsEnumerator packages(SidOfLocation(item.location));
  return IsEnabled(item, enabled, packages);
}

std::uint32_t MicrosoftStoreStartupItem::Disable(const StartupItem& item, StoreStatePrior* prior) {
  KY_TRACE(L"MicrosoftStoreStartupItem::Disable");
  return SetState(item, kStoreStateDisabledByUser, prior, kyTrace_.Name());
}

std::uint32_t MicrosoftStoreStartupItem::Enable(const StartupItem& item, StoreStatePrior* prior) {
  KY_TRACE(L"MicrosoftStoreStartupItem::Enable");
  return SetState(item, kStoreStateEnabled, prior, kyTrace_.Name());
}

std::uint32_t MicrosoftStoreStartupItem::SetState(const StartupItem& item, DWORD target, StoreStatePrior* prior,
                                                  const wchar_t* function) {
  logging::Write(logging::kLevelInfo, function, L"%s %s", item.location.c_str(), item.name.c_str());
  HKEY root = nullptr;
  std::wstring subkey;
  if (!TaskKey(item, root, subkey)) {
    logging::Write(logging::kLevelError, function, L"no task key for %s %s", item.location.c_str(), item.name.c_str());
    return kActionFailed;
  }
  StoreStatePrior before;
  DWORD state = 0;
  const std::uint32_t read = ReadState(item, state);
  if (read == 0) {
    before.present = true;
    before.state = state;
  } else if (read != ERROR_FILE_NOT_FOUND) {
    logging::Write(logging::kLevelError, function, L"read State of %s %s failed 0x%x", item.location.c_str(), item.name.c_str(), read);
    return read;
  }
  if (before.present && IsPolicyState(before.state)) {
    logging::Write(logging::kLevelError, function, L"State %u of %s %s is set by policy", before.state, item.location.c_str(),
           item.name.c_str());
    return kActionFailed;
  }
  if (prior != nullptr) *prior = before;
  if (before.present && before.state == target) {
    logging::Write(logging::kLevelInfo, function, target == kStoreStateEnabled ? L"item is enabled" : L"item is disabled");
    return 0;
  }
  ky::unique_hkey key;
  LSTATUS status =
      ::RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr);
  if (status == ERROR_SUCCESS) {
    status = ::RegSetValueExW(key.get(), kStoreStateValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&target),
                              sizeof(target));
  }
  if (status != ERROR_SUCCESS) {
    logging::Write(logging::kLevelError, function, L"failed set State %s %s 0x%x", item.location.c_str(), item.name.c_str(),
           static_cast<unsigned>(status));
    return static_cast<std::uint32_t>(status);
  }
  return 0;
}

std::uint32_t MicrosoftStoreStartupItem::Restore(const StartupItem& item, const StoreStatePrior& prior) {
  KY_TRACE(L"MicrosoftStoreStartupItem::Restore");
  HKEY root = nullptr;
  std::wstring subkey;
  if (!TaskKey(item, root, subkey)) return kActionFailed;
  ky::unique_hkey key;
  LSTATUS status = ::RegOpenKeyExW(root, subkey.c_str(), 0, KEY_SET_VALUE, key.put());
  if (status == ERROR_SUCCESS) {
    status = prior.present ? ::RegSetValueExW(key.get(), kStoreStateValue, 0, REG_DWORD,
                                              reinterpret_cast<const BYTE*>(&prior.state), sizeof(prior.state))
                           : ::RegDeleteValueW(key.get(), kStoreStateValue);
  }
  return static_cast<std::uint32_t>(status);
}

}  // namespace startup
