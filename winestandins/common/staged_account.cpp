#include "common/staged_account.h"

#include <sddl.h>

#include <string_view>
#include <vector>

#include "common/unique_handle.h"
#include "lumera_dev/console_session.h"

namespace winestandins {
namespace {

constexpr DWORD kMaxTextChars = 1024;
constexpr wchar_t kAccountSidPrefix[] = L"S-1-5-21-";
constexpr wchar_t kForbiddenNameChars[] = L"\"/\\[]:;|=,+*?<>@";

// A REG_SZ or REG_EXPAND_SZ value, the latter expanded; false, `out` untouched, when it is
// missing, of another type or longer than kMaxTextChars.
bool ReadText(HKEY root, const std::wstring& subkey, const wchar_t* name, std::wstring& out) {
  std::vector<wchar_t> buffer(kMaxTextChars + 1, L'\0');
  DWORD bytes = kMaxTextChars * sizeof(wchar_t);
  DWORD type = REG_NONE;
  if (::RegGetValueW(root, subkey.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, &type,
                     buffer.data(), &bytes) != ERROR_SUCCESS) {
    return false;
  }
  if (type != REG_EXPAND_SZ) {
    out = buffer.data();
    return true;
  }
  std::vector<wchar_t> expanded(kMaxTextChars + 1, L'\0');
  const DWORD chars = ::ExpandEnvironmentStringsW(buffer.data(), expanded.data(), kMaxTextChars + 1);
  if (chars == 0 || chars > kMaxTextChars + 1) return false;
  out = expanded.data();
  return true;
}

std::wstring WithoutTrailingSlash(std::wstring path) {
  while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
  return path;
}

}  // namespace

bool ReadStagedAccount(const std::wstring& devKey, Account& account) {
  std::wstring name;
  std::wstring sid;
  if (!ReadText(HKEY_LOCAL_MACHINE, devKey, kStagedUserValue, name) ||
      !ReadText(HKEY_LOCAL_MACHINE, devKey, kStagedUserSidValue, sid) || name.empty() || sid.empty()) {
    return false;
  }
  account.name = name;
  account.sid = sid;
  account.staged = true;
  return true;
}

bool ReadProcessAccount(Account& account) {
  ky::unique_handle token;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put())) return false;
  DWORD bytes = 0;
  ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &bytes);
  if (bytes == 0) return false;
  std::vector<BYTE> buffer(bytes);
  if (!::GetTokenInformation(token.get(), TokenUser, buffer.data(), bytes, &bytes)) return false;
  PSID sid = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
  LPWSTR text = nullptr;
  if (!::ConvertSidToStringSidW(sid, &text)) return false;
  const ky::unique_local owner(reinterpret_cast<HLOCAL>(text));
  wchar_t name[kMaxTextChars] = {};
  DWORD nameChars = kMaxTextChars;
  wchar_t domain[kMaxTextChars] = {};
  DWORD domainChars = kMaxTextChars;
  SID_NAME_USE use{};
  if (!::LookupAccountSidW(nullptr, sid, name, &nameChars, domain, &domainChars, &use)) return false;
  account.name = name;
  account.sid = text;
  account.staged = false;
  return true;
}

bool ReadLogonAccount(Account& account) {
  Account found;
  if (!ReadStagedAccount(DevelopmentKey(), found) && !ReadProcessAccount(found)) return false;
  if (!ProfileOfSid(found.sid, found.profile)) found.profile.clear();
  account = std::move(found);
  return true;
}

bool ProfileOfSid(const std::wstring& sid, std::wstring& profile) {
  std::wstring path;
  if (!ReadText(HKEY_LOCAL_MACHINE, std::wstring(kProfileListKey) + L"\\" + sid, kProfileImagePathValue, path) ||
      path.empty()) {
    return false;
  }
  profile = WithoutTrailingSlash(path);
  return true;
}

bool ProfilesDirectory(std::wstring& folder) {
  std::wstring path;
  if (!ReadText(HKEY_LOCAL_MACHINE, kProfileListKey, kProfilesDirectoryValue, path) || path.empty()) return false;
  folder = WithoutTrailingSlash(path);
  return true;
}

bool IsAccountSid(const std::wstring& sid) {
  if (sid.rfind(kAccountSidPrefix, 0) != 0) return false;
  PSID parsed = nullptr;
  if (!::ConvertStringSidToSidW(sid.c_str(), &parsed)) return false;
  const ky::unique_local owner(parsed);
  return true;
}

bool IsAccountName(const std::wstring& name) {
  if (name.empty() || name.size() > kMaxAccountNameChars) return false;
  bool onlyDotsAndSpaces = true;
  for (const wchar_t c : name) {
    if (c < L' ' || std::wstring_view(kForbiddenNameChars).find(c) != std::wstring_view::npos) return false;
    onlyDotsAndSpaces &= c == L'.' || c == L' ';
  }
  return !onlyDotsAndSpaces;
}

bool SameName(const std::wstring& a, const std::wstring& b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

}  // namespace winestandins
