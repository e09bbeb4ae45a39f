#include "startup/run_key_apps.h"

#include <algorithm>
#include <cwchar>
#include <vector>

#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/command_target.h"
#include "startup/registry_root.h"
#include "startup/target_memo.h"

namespace startup {

std::uint32_t CRunKeyAppsEnumerator::GetStartupApps(const std::wstring& path, StartupItemList& items) {
  KY_TRACE(L"CRunKeyAppsEnumerator::GetStartupApps");
  items.clear();
  if (root_ == nullptr || path.empty()) return kActionFailed;
  const std::wstring location = std::wstring(RegistryRootName(root_)) + L"\\" + path;
  KY_LOG(logging::kLevelDebug, L"Search in: %s", location.c_str());
  ky::unique_hkey key;
  LSTATUS status = ::RegOpenKeyW(root_, path.c_str(), key.put());
  if (status != ERROR_SUCCESS) {
    KY_LOG(logging::kLevelError, L"RegOpenKey %s failed 0x%x", location.c_str(), status);
    return static_cast<std::uint32_t>(status);
  }
  DWORD values = 0;
  DWORD longestName = 0;
  DWORD longestData = 0;
  status = ::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, &longestName,
                              &longestData, nullptr, nullptr);
  if (status != ERROR_SUCCESS) {
    KY_LOG(logging::kLevelError, L"RegQueryInfoKey %s failed 0x%x", location.c_str(), status);
    return static_cast<std::uint32_t>(status);
  }
  // One wide character more than asked, so that data without a terminator still ends.
  std::vector<BYTE> data(static_cast<std::size_t>(longestData) + 1 + sizeof(wchar_t), 0);
  std::vector<wchar_t> name(static_cast<std::size_t>(longestName) + 1, L'\0');
  for (DWORD index = 0; index < values; ++index) {
    DWORD nameChars = longestName + 1;
    DWORD dataBytes = longestData + 1;
    std::fill(data.begin(), data.end(), BYTE{0});
    if (::RegEnumValueW(key.get(), index, name.data(), &nameChars, nullptr, nullptr, data.data(), &dataBytes) !=
        ERROR_SUCCESS) {
      break;
    }
    auto item = std::make_shared<StartupItem>();
    item->name.assign(name.data(), nameChars);
    const auto* text = reinterpret_cast<const wchar_t*>(data.data());
    item->path.assign(text, wcsnlen(text, data.size() / sizeof(wchar_t)));
    item->location = location;
    item->isUser = isUser_;
    KY_LOG(logging::kLevelDebug, L"%s %s %s %s", item->name.c_str(), item->path.c_str(), location.c_str(),
           isUser_ ? L"user" : L"system");
    items.push_back(std::move(item));
  }
  return 0;
}

std::uint32_t DeleteRunValue(const StartupItem& item) {
  HKEY root = nullptr;
  std::wstring subkey;
  if (!SplitRegistryLocation(item.location, root, subkey)) return kActionFailed;
  ky::unique_hkey key;
  const LSTATUS status = ::RegOpenKeyExW(root, subkey.c_str(), 0, KEY_WRITE, key.put());
  if (status != ERROR_SUCCESS) return static_cast<std::uint32_t>(status);
  return static_cast<std::uint32_t>(::RegDeleteValueW(key.get(), item.name.c_str()));
}

std::uint32_t RollbackToRegistry(const StartupItem& item) {
  HKEY root = nullptr;
  std::wstring subkey;
  if (!SplitRegistryLocation(item.location, root, subkey)) return kActionFailed;
  ky::unique_hkey key;
  const LSTATUS status = ::RegOpenKeyW(root, subkey.c_str(), key.put());
  if (status != ERROR_SUCCESS) return static_cast<std::uint32_t>(status);
  // Always REG_SZ: the type the value had before was never kept.
  return static_cast<std::uint32_t>(::RegSetValueExW(key.get(), item.name.c_str(), 0, REG_SZ,
                                                     reinterpret_cast<const BYTE*>(item.path.c_str()),
                                                     static_cast<DWORD>((item.path.size() + 1) * sizeof(wchar_t))));
}

bool IsNetworkPath(const std::wstring& path) {
  const auto startsWith = [&path](const wchar_t* prefix) {
    return ::CompareStringOrdinal(path.c_str(), static_cast<int>(std::min(path.size(), std::wcslen(prefix))), prefix, -1,
                                  TRUE) == CSTR_EQUAL;
  };
  if (startsWith(L"\\\\?\\UNC\\")) return true;
  // \\?\ and \\.\ name this machine's own files and devices.
  if (startsWith(L"\\\\?\\") || startsWith(L"\\\\.\\")) return false;
  return startsWith(L"\\\\") || startsWith(L"//");
}

std::uint8_t CheckCommandTarget(const StartupItem& item) {
  KY_TRACE(L"CheckCommandTarget");
  const auto environment = EnvironmentOf(item);
  if (!environment->Available()) {
    KY_LOG(logging::kLevelInfo, L"no environment of the user for %s %s: kept", item.location.c_str(), item.name.c_str());
    return kActionOk;
  }
  std::wstring target;
  if (!ResolveCommandTarget(item.path, target, *environment)) return kActionFailed;
  // Opening \\server\share as LocalSystem makes the machine account authenticate to any host a
  // user names: such a target is never probed, and counts as present.
  if (IsNetworkPath(target)) {
    KY_LOG(logging::kLevelInfo, L"network target %s of %s %s not probed: kept", target.c_str(), item.location.c_str(),
           item.name.c_str());
    return kActionOk;
  }
  CTargetMemo* memo = CTargetMemo::Current();
  const bool exists = memo != nullptr ? memo->Exists(target) : ::GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES;
  return exists ? kActionOk : kActionFailed;
}

CStartupAppsActions::Undo CRunKeyAppsActions::TakeOut(StartupItem& item, const wchar_t*&) {
  if (DeleteRunValue(item) != 0) return {};
  return [&item] { (void)RollbackToRegistry(item); };
}

bool CRunKeyAppsActions::PutBack(StartupItem& item, const wchar_t* function) {
  if (!item.Actionable() || RollbackToRegistry(item) == 0) return true;
  logging::Write(logging::kLevelError, function, L"RollbackToRegistry FAILED %s", item.location.c_str());
  return false;
}

std::uint8_t CRunKeyAppsActions::Check(const StartupItem& item) {
  KY_TRACE(L"CRunKeyAppsActions::Check");
  return CheckCommandTarget(item);
}

}  // namespace startup
