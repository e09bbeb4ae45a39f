#include "startup/win8_startup_item.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <cwctype>

#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/registry_root.h"
#include "users/user_profile.h"

namespace startup {
namespace {

constexpr wchar_t kStartupFolderKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";
constexpr wchar_t kWowPiece[] = L"wow6432node\\";
constexpr wchar_t kApprovedRun[] = L"explorer\\startupapproved\\run";
constexpr wchar_t kApprovedRun32[] = L"explorer\\startupapproved\\run32";

using ValueBytes = std::array<BYTE, kApprovedValueMax>;

std::uint32_t ReadWord(const ValueBytes& bytes) {
  std::uint32_t word = 0;
  std::memcpy(&word, bytes.data(), sizeof(word));  // little-endian on every Windows target
  return word;
}

void WriteWord(ValueBytes& bytes, std::uint32_t word) { std::memcpy(bytes.data(), &word, sizeof(word)); }

// Key, value and state word of an item; false after logging why when the key is unusable.
struct ApprovedValue {
  HKEY root = nullptr;
  std::wstring subkey;
  ValueBytes bytes{};
  DWORD length = kApprovedValueMax;
  LSTATUS readStatus = ERROR_SUCCESS;
};

bool ReadApprovedValue(const StartupItem& item, StartupSourceKind kind, const wchar_t* function, ApprovedValue& value) {
  if (!GetItemRegKey(item, kind, value.root, value.subkey)) {
    logging::Write(logging::kLevelError, function, L"GetItemRegKey failed");
    return false;
  }
  if (value.root == nullptr) {
    logging::Write(logging::kLevelError, function, L"null parent key");
    return false;
  }
  value.readStatus = GetItemRegValue(value.root, value.subkey, item.name, value.bytes.data(), &value.length);
  // A value shorter than the state word counts as missing.
  if (value.readStatus == ERROR_SUCCESS && value.length < sizeof(std::uint32_t)) value.readStatus = ERROR_INVALID_DATA;
  if (value.readStatus != ERROR_SUCCESS) {
    value.bytes.fill(0);
    value.length = kApprovedValueNew;
  }
  return true;
}

// Writes the new state word back with the value's other bytes as they were read.
std::uint32_t WriteApprovedWord(const StartupItem& item, ApprovedValue& value, std::uint32_t word, const wchar_t* function) {
  WriteWord(value.bytes, word);
  const LSTATUS status = SetItemRegValue(value.root, value.subkey, item.name, value.bytes.data(), value.length);
  if (status != ERROR_SUCCESS) {
    logging::Write(logging::kLevelError, function, L"SetItemRegValue failed 0x%x", status);
    return static_cast<std::uint32_t>(status);
  }
  return 0;
}

}  // namespace

bool ApprovedRunSubkey(const std::wstring& runSubkey, std::wstring& approvedSubkey) {
  std::wstring path = runSubkey;
  std::transform(path.begin(), path.end(), path.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
  if (!path.empty() && path.back() == L'\\') path.pop_back();
  if (path.size() < 3 || path.compare(path.size() - 3, 3, L"run") != 0) return false;
  path.resize(path.size() - 3);
  const std::size_t wow = path.find(kWowPiece);
  if (wow != std::wstring::npos) {
    path.erase(wow, std::size(kWowPiece) - 1);
    path += kApprovedRun32;
  } else {
    path += kApprovedRun;
  }
  approvedSubkey = path;
  return true;
}

bool GetItemRegKey(const StartupItem& item, StartupSourceKind kind, HKEY& root, std::wstring& subkey) {
  if (kind == kSourceStartupFolder) {
    if (item.isUser <= 0) {
      root = HKEY_LOCAL_MACHINE;
      subkey = kStartupFolderKey;
      return true;
    }
    // In a service HKEY_CURRENT_USER is the service account's hive: the user's value lives in
    // the user's own hive, reached through the SID.
    const auto user = velora::utils::CUserProfile::Current();
    if (!user || user->Sid().empty()) return false;
    root = HKEY_USERS;
    subkey = user->Sid() + L"\\" + kStartupFolderKey;
    return true;
  }
  if (kind != kSourceRunKey) return false;
  HKEY runRoot = nullptr;
  std::wstring runSubkey;
  if (!SplitRegistryLocation(item.location, runRoot, runSubkey)) return false;
  if (!ApprovedRunSubkey(runSubkey, subkey)) return false;
  root = runRoot;
  return true;
}

LSTATUS GetItemRegValue(HKEY root, const std::wstring& subkey, const std::wstring& name, BYTE* data, DWORD* length) {
  KY_TRACE(L"GetItemRegValue");
  ky::unique_hkey key;
  const LSTATUS status = ::RegOpenKeyExW(root, subkey.c_str(), 0, KEY_QUERY_VALUE, key.put());
  if (status != ERROR_SUCCESS) {
    KY_LOG(logging::kLevelDebug, L"failed open %s %s", subkey.c_str(), name.c_str());
    return status;
  }
  return ::RegQueryValueExW(key.get(), name.c_str(), nullptr, nullptr, data, length);
}

LSTATUS SetItemRegValue(HKEY root, const std::wstring& subkey, const std::wstring& name, const BYTE* data,
                        DWORD length) {
  KY_TRACE(L"SetItemRegValue");
  ky::unique_hkey key;
  LSTATUS status = ::RegOpenKeyExW(root, subkey.c_str(), 0, KEY_SET_VALUE, key.put());
  if (status != ERROR_SUCCESS) {
    KY_LOG(logging::kLevelDebug, L"failed open %s %s, try create", subkey.c_str(), name.c_str());
    status = ::RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(), nullptr);
    if (status != ERROR_SUCCESS) {
      KY_LOG(logging::kLevelError, L"failed create %s %s", subkey.c_str(), name.c_str());
      return status;
    }
  }
  status = ::RegSetValueExW(key.get(), name.c_str(), 0, REG_BINARY, data, length);
  if (status != ERROR_SUCCESS) {
    KY_LOG(logging::kLevelError, L"failed set value %s %s %s", RegistryRootName(root), subkey.c_str(), name.c_str());
  }
  return status;
}

bool Win8StartupItem::IsEnabled(const StartupItem& item, StartupSourceKind kind) {
  KY_TRACE(L"Win8StartupItem::IsEnabled");
  ApprovedValue value;
  if (!ReadApprovedValue(item, kind, kyTrace_.Name(), value)) return false;
  return value.readStatus != ERROR_SUCCESS || IsEnabledWord(ReadWord(value.bytes));
}

std::uint32_t Win8StartupItem::Disable(const StartupItem& item, StartupSourceKind kind) {
  KY_TRACE(L"Win8StartupItem::Disable");
  KY_LOG(logging::kLevelInfo, L"%s %s", item.location.c_str(), item.name.c_str());
  ApprovedValue value;
  if (!ReadApprovedValue(item, kind, kyTrace_.Name(), value)) return kActionFailed;
  if (value.readStatus != ERROR_SUCCESS) {
    KY_LOG(logging::kLevelDebug, L"GetItemRegValue failed 0x%x", value.readStatus);
  }
  const std::uint32_t word = ReadWord(value.bytes);
  if (IsDisabledWord(word)) {
    KY_LOG(logging::kLevelInfo, L"item is disabled");
    return 0;
  }
  return WriteApprovedWord(item, value, DisabledWordFor(word), kyTrace_.Name());
}

std::uint32_t Win8StartupItem::Enable(const StartupItem& item, StartupSourceKind kind) {
  KY_TRACE(L"Win8StartupItem::Enable");
  KY_LOG(logging::kLevelInfo, L"%s %s", item.location.c_str(), item.name.c_str());
  ApprovedValue value;
  if (!ReadApprovedValue(item, kind, kyTrace_.Name(), value)) return kActionFailed;
  const std::uint32_t word = ReadWord(value.bytes);
  if (IsEnabledWord(word)) {
    KY_LOG(logging::kLevelInfo, L"item is enabled");
    return 0;
  }
  return WriteApprovedWord(item, value, EnabledWordFor(word), kyTrace_.Name());
}

}  // namespace startup
