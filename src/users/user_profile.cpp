#include "users/user_profile.h"

#include <sddl.h>

#include <cstdio>
#include <vector>

#include "common/com_ptr.h"
#include "common/log.h"
#include "common/module_library.h"
#include "users/ky_users.h"

namespace velora::utils {
namespace {

constexpr std::size_t kAccountChars = 1024;
constexpr DWORD kTokenAccess = TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE;

SRWLOCK g_lock = SRWLOCK_INIT;
bool g_captured = false;
std::shared_ptr<const CUserProfile>& Slot() {
  static std::shared_ptr<const CUserProfile> current;
  return current;
}

// The user's token while the thread impersonates them. The users library succeeds without
// impersonating when this process already runs as the console user; then the process's own
// token is that user's.
ky::unique_handle TokenOfImpersonatedUser() {
  KY_TRACE(L"velora::utils::TokenOfImpersonatedUser");
  ky::unique_handle token;
  ::SetLastError(0);
  // Opened as the service itself: the user's token need not grant the user access to itself.
  if (::OpenThreadToken(::GetCurrentThread(), kTokenAccess, TRUE, token.put())) return token;
  if (::GetLastError() == ERROR_NO_TOKEN && ::OpenProcessToken(::GetCurrentProcess(), kTokenAccess, token.put())) {
    return token;
  }
  KY_LOG(logging::kLevelError, L"OpenThreadToken failed 0x%x", ky::LastErrorOr(ERROR_NO_TOKEN));
  return {};
}

}  // namespace

bool SidOfAccount(const std::wstring& account, std::wstring& sid) {
  DWORD sidBytes = 0;
  DWORD domainChars = 0;
  SID_NAME_USE use{};
  ::LookupAccountNameW(nullptr, account.c_str(), nullptr, &sidBytes, nullptr, &domainChars, &use);
  if (sidBytes == 0 || sidBytes > SECURITY_MAX_SID_SIZE) return false;
  std::vector<BYTE> sidBuffer(sidBytes);
  std::vector<wchar_t> domain(static_cast<std::size_t>(domainChars) + 1);
  if (!::LookupAccountNameW(nullptr, account.c_str(), sidBuffer.data(), &sidBytes, domain.data(), &domainChars, &use)) {
    return false;
  }
  LPWSTR text = nullptr;
  if (!::ConvertSidToStringSidW(sidBuffer.data(), &text)) return false;
  ky::unique_local owner(reinterpret_cast<HLOCAL>(text));
  sid = text;
  return true;
}

std::uint32_t CUserProfile::Capture(std::shared_ptr<const CUserProfile>& profile) {
  KY_TRACE(L"velora::utils::CUserProfile::Capture");
  auto& users = CKYUsers::Instance();
  if (!users.ReloadDll()) {
    KY_LOG(logging::kLevelError, L"CKYUsers::ReloadDll failed");
    return kErrorUsersNotLoaded;
  }
  std::wstring userName;
  std::wstring domain;
  if (const std::uint32_t asked = users.GetCurrentUserInfoBasic(userName, domain); asked != 0) {
    KY_LOG(logging::kLevelError, L"CKYUsers::GetCurrentUserInfoBasic failed");
    return asked;
  }
  KY_LOG(logging::kLevelInfo, L"szUserName=%s szDomain=%s", userName.c_str(), domain.c_str());
  std::vector<wchar_t> account(kAccountChars, L'\0');
  std::wstring sid;
  const int written = _snwprintf(account.data(), kAccountChars - 1, L"%s\\%s", domain.c_str(), userName.c_str());
  if (written < 0 || !SidOfAccount(account.data(), sid)) {
    KY_LOG(logging::kLevelError, L"velora::utils::CUsers::GetUserSid(%s, %s) failed 0x%x", userName.c_str(),
           domain.c_str(), ERROR_GEN_FAILURE);
    return ERROR_NONE_MAPPED;
  }
  ky::unique_handle token;
  {
    CUserImpersonation impersonation(users);
    if (impersonation.Active()) {
      token = TokenOfImpersonatedUser();
    } else {
      KY_LOG(logging::kLevelError, L"SrvImpersonateCurrentUser failed for %s", userName.c_str());
    }
  }
  profile = Make(std::move(userName), std::move(domain), std::move(sid), std::move(token));
  return 0;
}

std::shared_ptr<const CUserProfile> CUserProfile::Make(std::wstring userName, std::wstring domain, std::wstring sid,
                                                       ky::unique_handle token) {
  auto profile = std::shared_ptr<CUserProfile>(new CUserProfile());
  profile->userName_ = std::move(userName);
  profile->domain_ = std::move(domain);
  profile->sid_ = std::move(sid);
  if (token.valid()) profile->token_ = std::make_shared<const ky::unique_handle>(std::move(token));
  profile->environment_ = CEnvironment::ForUser(profile->token_);
  return profile;
}

std::shared_ptr<const CUserProfile> CUserProfile::Current() {
  ::AcquireSRWLockShared(&g_lock);
  const bool captured = g_captured;
  std::shared_ptr<const CUserProfile> current = Slot();
  ::ReleaseSRWLockShared(&g_lock);
  return captured ? current : Refresh();
}

std::shared_ptr<const CUserProfile> CUserProfile::Refresh() {
  std::shared_ptr<const CUserProfile> profile;
  (void)Capture(profile);
  SetCurrent(profile);
  return profile;
}

void CUserProfile::SetCurrent(std::shared_ptr<const CUserProfile> profile) {
  ::AcquireSRWLockExclusive(&g_lock);
  Slot().swap(profile);
  g_captured = true;
  ::ReleaseSRWLockExclusive(&g_lock);
  // The profile replaced is released here, outside the lock.
}

std::uint32_t CUserProfile::KnownFolder(REFKNOWNFOLDERID id, std::wstring& folder) const {
  if (!HasToken()) return ERROR_NO_TOKEN;
  ky::unique_cotaskmem_string path;
  const HRESULT result = ::SHGetKnownFolderPath(id, KF_FLAG_DONT_VERIFY, token_->get(), path.put());
  if (FAILED(result)) return static_cast<std::uint32_t>(result);
  if (!path || path.get()[0] == L'\0') return static_cast<std::uint32_t>(E_FAIL);
  folder = path.get();
  while (folder.size() > 3 && folder.back() == L'\\') folder.pop_back();
  return 0;
}

}  // namespace velora::utils
