#include "startup/startup_items.h"

#include <sddl.h>

#include <cstdio>
#include <vector>

#include "common/log.h"
#include "common/unique_handle.h"
#include "common/windows_version.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/store_apps_enumerator.h"
#include "users/ky_users.h"

namespace startup {
namespace {

constexpr std::size_t kAccountChars = 1024;
constexpr DWORD kExpandChars = 32768;

bool Expand(const wchar_t* text, std::wstring& out) {
  std::vector<wchar_t> buffer(kExpandChars, L'\0');
  const DWORD chars = ::ExpandEnvironmentStringsW(text, buffer.data(), kExpandChars);
  if (chars == 0 || chars > kExpandChars) return false;
  out = buffer.data();
  return true;
}

bool SidOfAccount(const wchar_t* account, std::wstring& sid) {
  DWORD sidBytes = 0;
  DWORD domainChars = 0;
  SID_NAME_USE use{};
  ::LookupAccountNameW(nullptr, account, nullptr, &sidBytes, nullptr, &domainChars, &use);
  if (sidBytes == 0) return false;
  std::vector<BYTE> sidBuffer(sidBytes);
  std::vector<wchar_t> domain(static_cast<std::size_t>(domainChars) + 1);
  if (!::LookupAccountNameW(nullptr, account, sidBuffer.data(), &sidBytes, domain.data(), &domainChars, &use)) {
    return false;
  }
  LPWSTR text = nullptr;
  if (!::ConvertSidToStringSidW(sidBuffer.data(), &text)) return false;
  ky::unique_local owner(reinterpret_cast<HLOCAL>(text));
  sid = text;
  return true;
}

}  // namespace

CStartupItems::CStartupItems() {
  KY_TRACE(L"CStartupItems::CStartupItems");
  std::wstring sid;
  if (GetCrtUserSid(sid)) {
    runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_USERS, 1), sid + L"\\" + kRunKeyPath);
  } else {
    runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_CURRENT_USER, 1), kRunKeyPath);
  }
  runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_LOCAL_MACHINE, 0), kRunKeyPath);
  runKeySources_.emplace_back(std::make_shared<CRunKeyAppsEnumerator>(HKEY_LOCAL_MACHINE, 0), kRunKeyPathWow);
  if (ky::IsWindows8OrGreater()) {
    storeSources_.emplace_back(std::make_shared<MicrosoftStoreAppsEnumerator>(), kStoreAppsKeyPath);
  }

  const std::pair<const wchar_t*, std::uint8_t> folders[] = {{kUserStartupFolder, 1}, {kCommonStartupFolder, 0}};
  for (const auto& [folder, isUser] : folders) {
    std::wstring expanded;
    if (Expand(folder, expanded)) {
      folderSources_.emplace_back(std::make_shared<CStartupFolderEnumerator>(isUser), expanded);
    }
  }
}

bool CStartupItems::GetCrtUserSid(std::wstring& sid) {
  KY_TRACE(L"CStartupItems::GetCrtUserSid");
  auto& users = velora::utils::CKYUsers::Instance();
  if (!users.ReloadDll()) {
    KY_LOG(logging::kLevelError, L"CKYUsers::ReloadDll failed");
    return false;
  }
  std::wstring userName;
  std::wstring domain;
  if (users.GetCurrentUserInfoBasic(userName, domain) != 0) {
    KY_LOG(logging::kLevelError, L"CKYUsers::GetCurrentUserInfoBasic failed");
    return false;
  }
  KY_LOG(logging::kLevelInfo, L"szUserName=%s szDomain=%s", userName.c_str(), domain.c_str());
  std::vector<wchar_t> account(kAccountChars, L'\0');
  const int written = _snwprintf(account.data(), kAccountChars - 1, L"%s\\%s", domain.c_str(), userName.c_str());
  if (written < 0 || !SidOfAccount(account.data(), sid)) {
    KY_LOG(logging::kLevelError, L"velora::utils::CUsers::GetUserSid(%s, %s) failed 0x%x", userName.c_str(),
           domain.c_str(), ERROR_GEN_FAILURE);
    return false;
  }
  return true;
}

}  // namespace startup
