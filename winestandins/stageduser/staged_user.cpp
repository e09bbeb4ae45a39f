#include "stageduser/staged_user.h"

#include <windows.h>

#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/file_bytes.h"
#include "common/staged_account.h"
#include "common/unique_handle.h"
#include "stageduser/hive_image.h"
#include "stageduser/hive_registry.h"

namespace winestandins::staging {
namespace {

constexpr wchar_t kDefaultProfilesDirectory[] = L"C:\\users";
constexpr wchar_t kUserRoot[] = L"\\Registry\\User\\";
constexpr wchar_t kClassesLinkPath[] = L"Software\\Classes";
constexpr wchar_t kTempFolder[] = L"AppData\\Local\\Temp";
constexpr wchar_t kWindowsAppsFolder[] = L"AppData\\Local\\Microsoft\\WindowsApps";

// The keys a new Windows profile has that the staged boot uses, below HKEY_USERS\<SID>.
constexpr const wchar_t* kSkeletonKeys[] = {
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Run",
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\Run",
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder",
    L"Environment",
};

struct SkeletonValue {
  const wchar_t* key;
  const wchar_t* name;
  const wchar_t* data;  // REG_EXPAND_SZ, as Windows writes them for a new profile
};
constexpr SkeletonValue kSkeletonValues[] = {
    {L"Environment", L"Path", L"%USERPROFILE%\\AppData\\Local\\Microsoft\\WindowsApps;"},
    {L"Environment", L"TEMP", L"%USERPROFILE%\\AppData\\Local\\Temp"},
    {L"Environment", L"TMP", L"%USERPROFILE%\\AppData\\Local\\Temp"},
    {L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders", L"AppData",
     L"%USERPROFILE%\\AppData\\Roaming"},
    {L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders", L"Local AppData",
     L"%USERPROFILE%\\AppData\\Local"},
    {L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders", L"Startup",
     L"%USERPROFILE%\\AppData\\Roaming\\Microsoft\\Windows\\Start Menu\\Programs\\Startup"},
};

std::wstring Failed(const std::wstring& what, DWORD error) { return what + L" failed (error " + std::to_wstring(error) + L")"; }

LSTATUS SetText(HKEY root, const std::wstring& subkey, const wchar_t* name, const std::wstring& text, DWORD type) {
  return ::RegSetKeyValueW(root, subkey.c_str(), name, type, text.c_str(),
                           static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

LSTATUS SetDword(HKEY root, const std::wstring& subkey, const wchar_t* name, DWORD value) {
  return ::RegSetKeyValueW(root, subkey.c_str(), name, REG_DWORD, &value, sizeof value);
}

bool EnsureProfile(const StagedUser& user, const std::wstring& profile, std::wstring& reason) {
  const std::wstring entry = std::wstring(kProfileListKey) + L"\\" + user.sid;
  if (LSTATUS status = SetText(HKEY_LOCAL_MACHINE, entry, kProfileImagePathValue, profile, REG_SZ);
      status != ERROR_SUCCESS || (status = SetDword(HKEY_LOCAL_MACHINE, entry, L"Flags", 0)) != ERROR_SUCCESS ||
      (status = SetDword(HKEY_LOCAL_MACHINE, entry, L"State", 0)) != ERROR_SUCCESS) {
    reason = Failed(L"writing HKLM\\" + entry, static_cast<DWORD>(status));
    return false;
  }
  for (const wchar_t* folder : {kStartupFolder, kLocalFolder, kTempFolder, kWindowsAppsFolder}) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::path(profile) / folder;
    std::filesystem::create_directories(path, error);
    if (error) {
      reason = Failed(L"creating " + path.wstring(), static_cast<DWORD>(error.value()));
      return false;
    }
  }
  return true;
}

bool EnsureHiveSkeleton(const StagedUser& user, std::wstring& reason) {
  std::vector<std::wstring> paths = {user.sid, ClassesKeyOf(user.sid)};
  for (const wchar_t* subkey : kSkeletonKeys) paths.push_back(user.sid + L"\\" + subkey);
  for (const std::wstring& path : paths) {
    ky::unique_hkey key;
    const LSTATUS status = ::RegCreateKeyExW(HKEY_USERS, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ,
                                             nullptr, key.put(), nullptr);
    if (status != ERROR_SUCCESS) {
      reason = Failed(L"creating HKEY_USERS\\" + path, static_cast<DWORD>(status));
      return false;
    }
  }
  // Only values that are missing, so that running create again keeps what was changed since.
  for (const SkeletonValue& value : kSkeletonValues) {
    const std::wstring path = user.sid + L"\\" + value.key;
    if (::RegGetValueW(HKEY_USERS, path.c_str(), value.name, RRF_RT_ANY | RRF_NOEXPAND, nullptr, nullptr, nullptr) ==
        ERROR_SUCCESS) {
      continue;
    }
    if (const LSTATUS status = SetText(HKEY_USERS, path, value.name, value.data, REG_EXPAND_SZ); status != ERROR_SUCCESS) {
      reason = Failed(L"writing HKEY_USERS\\" + path + L" " + value.name, static_cast<DWORD>(status));
      return false;
    }
  }
  return true;
}

bool EnsureClassesLink(const StagedUser& user, std::wstring& reason) {
  ky::unique_hkey classes;
  const std::wstring classesKey = ClassesKeyOf(user.sid);
  LSTATUS status = ::RegCreateKeyExW(HKEY_USERS, classesKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ,
                                     nullptr, classes.put(), nullptr);
  if (status != ERROR_SUCCESS) {
    reason = Failed(L"creating HKEY_USERS\\" + classesKey, static_cast<DWORD>(status));
    return false;
  }
  const std::wstring link = user.sid + L"\\" + kClassesLinkPath;
  const DWORD linked = hive::CreateRegistryLink(HKEY_USERS, link, kUserRoot + classesKey);
  if (linked == ERROR_ALREADY_EXISTS) {
    reason = L"HKEY_USERS\\" + link + L" is an ordinary key, not the link to HKEY_USERS\\" + classesKey;
    return false;
  }
  if (linked != ERROR_SUCCESS) {
    reason = Failed(L"linking HKEY_USERS\\" + link, linked);
    return false;
  }
  return true;
}

bool WriteDevelopmentValues(const StagedUser& user, std::wstring& reason) {
  LSTATUS status = SetText(HKEY_LOCAL_MACHINE, user.devKey, kStagedUserValue, user.name, REG_SZ);
  if (status == ERROR_SUCCESS) status = SetText(HKEY_LOCAL_MACHINE, user.devKey, kStagedUserSidValue, user.sid, REG_SZ);
  if (status != ERROR_SUCCESS) {
    reason = Failed(L"writing HKLM\\" + user.devKey, static_cast<DWORD>(status));
    return false;
  }
  return true;
}

std::wstring HiveFileOf(const std::wstring& profile) { return profile + L"\\" + kHiveFileName; }

std::size_t CountValues(const hive::HiveImage& image) {
  std::size_t values = 0;
  for (const hive::Key& key : image.keys) values += key.values.size();
  return values;
}

std::wstring Described(const StagedUser& user) { return user.name + L" (" + user.sid + L")"; }

}  // namespace

std::wstring SidFor(const std::wstring& name, const std::wstring& explicitSid, const std::wstring& devKey) {
  if (!explicitSid.empty()) return explicitSid;
  Account staged;
  if (ReadStagedAccount(devKey, staged) && SameName(staged.name, name)) return staged.sid;
  return kDefaultStagedSid;
}

bool ProfileFor(const StagedUser& user, std::wstring& profile, std::wstring& reason) {
  if (ProfileOfSid(user.sid, profile)) return true;
  std::wstring folder;
  if (!ProfilesDirectory(folder)) folder = kDefaultProfilesDirectory;
  if (folder.empty()) {
    reason = L"no folder for profiles";
    return false;
  }
  profile = folder + L"\\" + user.name;
  return true;
}

bool CreateStagedUser(const StagedUser& user, std::wstring& report, std::wstring& reason) {
  std::wstring profile;
  if (!ProfileFor(user, profile, reason) || !EnsureProfile(user, profile, reason) ||
      !EnsureHiveSkeleton(user, reason) || !EnsureClassesLink(user, reason) || !WriteDevelopmentValues(user, reason)) {
    return false;
  }
  report = L"staged user " + Described(user) + L", profile " + profile;
  return true;
}

bool LogonStagedUser(const StagedUser& user, std::wstring& report, std::wstring& reason) {
  std::wstring profile;
  if (!ProfileFor(user, profile, reason) || !EnsureProfile(user, profile, reason) ||
      !WriteDevelopmentValues(user, reason)) {
    return false;
  }
  if (hive::HiveLoaded(user.sid)) {
    // Windows keeps a hive that is in use loaded and does not read the file again.
    if (!EnsureClassesLink(user, reason)) return false;
    report = L"logon " + Described(user) + L": the hive was loaded already";
    return true;
  }
  const std::wstring file = HiveFileOf(profile);
  std::vector<std::uint8_t> bytes;
  const DWORD read = ReadBoundedFile(file, hive::kMaxFileBytes, bytes);
  if (read == ERROR_FILE_NOT_FOUND || read == ERROR_PATH_NOT_FOUND) {
    if (!EnsureHiveSkeleton(user, reason) || !EnsureClassesLink(user, reason)) return false;
    report = L"logon " + Described(user) + L": no saved hive, a new one created";
    return true;
  }
  if (read != ERROR_SUCCESS) {
    reason = Failed(L"reading " + file, read);
    return false;
  }
  hive::HiveImage image;
  std::string why;
  if (!hive::DecodeHive(bytes.data(), bytes.size(), image, why)) {
    reason = file + L" refused: " + std::wstring(why.begin(), why.end());
    return false;
  }
  if (image.sid != user.sid) {
    reason = file + L" holds the hive of " + image.sid + L", not of " + user.sid;
    return false;
  }
  if (const DWORD restored = hive::RestoreHive(image); restored != ERROR_SUCCESS) {
    reason = Failed(L"loading " + file, restored);
    return false;
  }
  if (!EnsureClassesLink(user, reason)) return false;
  report = L"logon " + Described(user) + L": loaded " + std::to_wstring(image.keys.size()) + L" keys and " +
           std::to_wstring(CountValues(image)) + L" values from " + file;
  return true;
}

bool LogoffStagedUser(const StagedUser& user, std::wstring& report, std::wstring& reason) {
  std::wstring profile;
  if (!ProfileOfSid(user.sid, profile)) {
    reason = L"no ProfileList entry for " + user.sid + L": stage the user first";
    return false;
  }
  hive::HiveImage image;
  if (const DWORD captured = hive::CaptureHive(user.sid, image); captured != ERROR_SUCCESS) {
    reason = captured == ERROR_FILE_NOT_FOUND ? L"HKEY_USERS\\" + user.sid + L" is not loaded"
                                              : Failed(L"reading HKEY_USERS\\" + user.sid, captured);
    return false;
  }
  std::vector<std::uint8_t> bytes;
  if (!hive::EncodeHive(image, bytes)) {
    reason = L"HKEY_USERS\\" + user.sid + L" holds what a saved hive may not (a link out of the hive, or more than its limits)";
    return false;
  }
  const std::wstring file = HiveFileOf(profile);
  if (const DWORD written = ReplaceFileContent(file, bytes); written != ERROR_SUCCESS) {
    reason = Failed(L"writing " + file, written);
    return false;
  }
  if (const DWORD unloaded = hive::UnloadHive(user.sid); unloaded != ERROR_SUCCESS) {
    reason = Failed(L"unloading HKEY_USERS\\" + user.sid, unloaded);
    return false;
  }
  report = L"logoff " + Described(user) + L": saved " + std::to_wstring(image.keys.size()) + L" keys and " +
           std::to_wstring(CountValues(image)) + L" values to " + file;
  return true;
}

}  // namespace winestandins::staging
