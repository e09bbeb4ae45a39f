// The console session and the account database as they look with the staged user:
// wtsapi32's session queries and advapi32's account lookups.
#include "lumera_dev/stand_ins.h"

#include <sddl.h>

#include <cwchar>
#include <optional>
#include <string>

#include "common/unique_handle.h"
#include "lumera_dev/console_session.h"
#include "lumera_dev/import_redirect.h"
#include "lumera_dev/registry_text.h"

namespace lumera::dev {
namespace {

constexpr wchar_t kWtsApi[] = L"wtsapi32.dll";
constexpr wchar_t kAdvApi[] = L"advapi32.dll";

// What the session answers for the user's name or domain, or nothing to leave it to Wine.
// With nobody at the console Windows answers both with an empty text, not with a failure.
std::optional<std::wstring> StagedSessionText(WTS_INFO_CLASS what) {
  if (what != WTSUserName && what != WTSDomainName) return std::nullopt;
  if (StagedConsoleSession() == ConsoleSession::kLoggedOff) return std::wstring();
  StagedIdentity identity;
  if (!ReadStagedIdentity(identity)) return std::nullopt;
  return what == WTSUserName ? identity.user : ComputerName();
}

// "name" or "DOMAIN\name" naming the staged account; any domain, as the rig has one machine.
bool NamesStagedUser(LPCWSTR account, const std::wstring& user) {
  if (account == nullptr) return false;
  const wchar_t* slash = std::wcschr(account, L'\\');
  const wchar_t* name = slash != nullptr ? slash + 1 : account;
  return ::CompareStringOrdinal(name, -1, user.c_str(), static_cast<int>(user.size()), TRUE) == CSTR_EQUAL;
}

ky::unique_local StagedSid(const StagedIdentity& identity) {
  ky::unique_local sid;
  PSID converted = nullptr;
  if (::ConvertStringSidToSidW(identity.sid.c_str(), &converted)) sid.reset(converted);
  return sid;
}

void CopyText(const std::wstring& text, LPWSTR out) {
  std::wmemcpy(out, text.c_str(), text.size() + 1);
}

}  // namespace

BOOL WINAPI StagedWTSQuerySessionInformationW(HANDLE server, DWORD session, WTS_INFO_CLASS what, LPWSTR* buffer,
                                              DWORD* bytes) {
  const auto original = KY_DEV_ORIGINAL(kWtsApi, WTSQuerySessionInformationW);
  const std::optional<std::wstring> text = StagedSessionText(what);
  if (!text) return CallOriginal(original, server, session, what, buffer, bytes);
  if (buffer == nullptr || bytes == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const std::size_t size = (text->size() + 1) * sizeof(wchar_t);
  auto* copy = static_cast<LPWSTR>(AllocateStandInBuffer(size));
  if (copy == nullptr) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  CopyText(*text, copy);
  *buffer = copy;
  *bytes = static_cast<DWORD>(size);
  return TRUE;
}

void WINAPI StagedWTSFreeMemory(PVOID memory) {
  const auto original = KY_DEV_ORIGINAL(kWtsApi, WTSFreeMemory);
  if (FreeStandInBuffer(memory)) return;
  if (original != nullptr) original(memory);
}

BOOL WINAPI StagedWTSQueryUserToken(ULONG session, PHANDLE token) {
  const auto original = KY_DEV_ORIGINAL(kWtsApi, WTSQueryUserToken);
  if (StagedConsoleSession() == ConsoleSession::kLoggedOff) {
    ::SetLastError(ERROR_NO_TOKEN);
    return FALSE;
  }
  StagedIdentity identity;
  if (!ReadStagedIdentity(identity)) return CallOriginal(original, session, token);
  if (token == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  // A new token object, not another handle to the process's: its TokenId is what tells the
  // other stand-ins that a caller holds the staged user's token.
  ky::unique_handle own;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, own.put())) return FALSE;
  return ::DuplicateTokenEx(own.get(), TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenPrimary, token);
}

BOOL WINAPI StagedLookupAccountNameW(LPCWSTR system, LPCWSTR account, PSID sid, LPDWORD sidBytes, LPWSTR domain,
                                     LPDWORD domainChars, PSID_NAME_USE use) {
  const auto original = KY_DEV_ORIGINAL(kAdvApi, LookupAccountNameW);
  StagedIdentity identity;
  if (!ReadStagedIdentity(identity) || !NamesStagedUser(account, identity.user)) {
    return CallOriginal(original, system, account, sid, sidBytes, domain, domainChars, use);
  }
  if (sidBytes == nullptr || domainChars == nullptr || use == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const ky::unique_local staged = StagedSid(identity);
  if (!staged) {
    ::SetLastError(ERROR_NONE_MAPPED);
    return FALSE;
  }
  const DWORD needSid = ::GetLengthSid(staged.get());
  const std::wstring computer = ComputerName();
  const DWORD needDomain = static_cast<DWORD>(computer.size() + 1);
  // Both sizes are reported together, so one retry with both buffers grown succeeds.
  if ((sid == nullptr ? 0 : *sidBytes) < needSid || (domain == nullptr ? 0 : *domainChars) < needDomain) {
    *sidBytes = needSid;
    *domainChars = needDomain;
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  if (!::CopySid(needSid, sid, staged.get())) return FALSE;
  CopyText(computer, domain);
  *sidBytes = needSid;
  *domainChars = needDomain - 1;
  *use = SidTypeUser;
  return TRUE;
}

BOOL WINAPI StagedLookupAccountSidW(LPCWSTR system, PSID sid, LPWSTR name, LPDWORD nameChars, LPWSTR domain,
                                    LPDWORD domainChars, PSID_NAME_USE use) {
  const auto original = KY_DEV_ORIGINAL(kAdvApi, LookupAccountSidW);
  StagedIdentity identity;
  ky::unique_local staged;
  if (sid != nullptr && ::IsValidSid(sid) && ReadStagedIdentity(identity)) staged = StagedSid(identity);
  if (!staged || !::EqualSid(sid, staged.get())) {
    return CallOriginal(original, system, sid, name, nameChars, domain, domainChars, use);
  }
  if (nameChars == nullptr || domainChars == nullptr || use == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const std::wstring computer = ComputerName();
  const DWORD needName = static_cast<DWORD>(identity.user.size() + 1);
  const DWORD needDomain = static_cast<DWORD>(computer.size() + 1);
  if ((name == nullptr ? 0 : *nameChars) < needName || (domain == nullptr ? 0 : *domainChars) < needDomain) {
    *nameChars = needName;
    *domainChars = needDomain;
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  CopyText(identity.user, name);
  CopyText(computer, domain);
  *nameChars = needName - 1;
  *domainChars = needDomain - 1;
  *use = SidTypeUser;
  return TRUE;
}

}  // namespace lumera::dev
