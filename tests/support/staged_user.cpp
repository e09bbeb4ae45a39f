#include "support/staged_user.h"

#include <gtest/gtest.h>
#include <shlobj.h>

#include <vector>

#include "common/unique_handle.h"
#include "support/registry_values.h"
#include "users/user_profile.h"

namespace testsupport {
namespace {

constexpr wchar_t kDevelopmentKey[] = L"Software\\Nexalon\\Lumera\\Development";
constexpr wchar_t kDevKeyVariable[] = L"LUMERA_DEV_KEY";
constexpr wchar_t kProfileList[] = L"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";

void SetText(HKEY root, const std::wstring& key, const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ) {
  ASSERT_EQ(SetRegText(root, key, name, text, type), ERROR_SUCCESS) << "staging " << testing::PrintToString(key);
}

void SetDword(HKEY root, const std::wstring& key, const wchar_t* name, DWORD value) {
  ASSERT_EQ(SetRegDword(root, key, name, value), ERROR_SUCCESS);
}

void CreateKey(HKEY root, const std::wstring& key) {
  ky::unique_hkey created;
  ASSERT_EQ(::RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, created.put(), nullptr),
            ERROR_SUCCESS)
      << "staging " << testing::PrintToString(key);
}

}  // namespace

StagedUser::StagedUser(bool loggedOn) {
  const std::wstring unique = UniqueSuffix();
  name_ = L"lumerauser" + unique;
  sid_ = L"S-1-5-21-7-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + unique.substr(unique.find(L'x') + 1) + L"-1001";
  devKey_ = std::wstring(kDevelopmentKey) + L"\\Test" + unique;
  profile_ = scratch_.path() + name_;
  for (const std::wstring& folder : {Startup(), Local()}) {
    EXPECT_EQ(::SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr), ERROR_SUCCESS) << testing::PrintToString(folder);
  }
  SetText(HKEY_LOCAL_MACHINE, devKey_, L"StagedUser", name_);
  SetText(HKEY_LOCAL_MACHINE, devKey_, L"StagedUserSid", sid_);
  SetDword(HKEY_LOCAL_MACHINE, devKey_, L"ConsoleSession", loggedOn ? 1 : 0);
  SetText(HKEY_LOCAL_MACHINE, std::wstring(kProfileList) + sid_, L"ProfileImagePath", profile_, REG_EXPAND_SZ);
  CreateKey(HKEY_USERS, RunKey());
  CreateKey(HKEY_USERS, Hive(L"Environment"));
  CreateKey(HKEY_USERS, Hive(L"Software\\Classes"));

  std::vector<wchar_t> previous(32768, L'\0');
  const DWORD chars = ::GetEnvironmentVariableW(kDevKeyVariable, previous.data(), static_cast<DWORD>(previous.size()));
  hadDevKey_ = chars > 0 && chars < previous.size();
  if (hadDevKey_) previousDevKey_ = previous.data();
  ::SetEnvironmentVariableW(kDevKeyVariable, devKey_.c_str());
  velora::utils::CUserProfile::Refresh();
}

StagedUser::~StagedUser() {
  ::SetEnvironmentVariableW(kDevKeyVariable, hadDevKey_ ? previousDevKey_.c_str() : nullptr);
  RemoveKeys();
  velora::utils::CUserProfile::Refresh();
}

void StagedUser::RemoveKeys() const {
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, devKey_.c_str());
  ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, devKey_.c_str());
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(kProfileList) + sid_).c_str());
  ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, (std::wstring(kProfileList) + sid_).c_str());
  ::RegDeleteTreeW(HKEY_USERS, sid_.c_str());
  ::RegDeleteKeyW(HKEY_USERS, sid_.c_str());
}

void StagedUser::SetLoggedOn(bool loggedOn) {
  SetDword(HKEY_LOCAL_MACHINE, devKey_, L"ConsoleSession", loggedOn ? 1 : 0);
  velora::utils::CUserProfile::Refresh();
}

std::wstring StagedUser::RunKey() const { return Hive(kRunKey); }

void StagedUser::SetRun(const std::wstring& name, const std::wstring& command) const {
  SetText(HKEY_USERS, RunKey(), name.c_str(), command, REG_EXPAND_SZ);
}

void StagedUser::SetUserPath(const std::wstring& path) const {
  SetText(HKEY_USERS, Hive(L"Environment"), L"Path", path, REG_EXPAND_SZ);
}

}  // namespace testsupport
