// kyusers.dll: facts about the user logged on at the console, for a service that runs apart
// from that user.
//
// Who "the current user" is: the user of the active console session
// (WTSGetActiveConsoleSessionId, then WTSQuerySessionInformationW with WTSUserName and
// WTSDomainName). When the session names no user (nobody is logged on at the console, or the
// query fails) the information and impersonation calls report 1008 (ERROR_NO_TOKEN); the
// calling process's own account is never taken for the user, since a service runs as an
// account of its own. The domain is the session's, or the computer name when the session's
// domain is empty.
//
// Application-data folder: the roaming folder (SHGetFolderPathW with CSIDL_APPDATA) read
// through the user's token (WTSQueryUserToken); when the token cannot be had but the calling
// process itself runs as the console user (names compared without case), the process's own
// folder; otherwise the field stays absent.
//
// Impersonation: WTSQueryUserToken + ImpersonateLoggedOnUser on the calling thread. When the
// token cannot be had but the calling process runs as the console user, the call succeeds
// without impersonating, because every per-user lookup already sees that user. Otherwise it
// fails with the Windows error code (1008 when nobody is at the console). Revert ends the
// calling thread's impersonation.
//
// Every call is thread-safe, takes no lock and never throws. Strings are zero-terminated and
// truncated to their arrays; a field counts as present when its first character is not 0.
#pragma once

#include <windows.h>

#include <cstdint>

namespace kyusers {

inline constexpr std::size_t kUserNameChars = 257;   // UNLEN + 1
inline constexpr std::size_t kDomainChars = 256;     // DNLEN is 15; any NetBIOS or DNS domain fits
inline constexpr std::size_t kFolderChars = MAX_PATH;

// Filled by SrvGetCurrentUserInfoBasic. `size` must be set by the caller to
// sizeof(UserInfoBasic) so that later, longer records stay compatible.
struct UserInfoBasic {
  std::uint32_t size;
  std::uint32_t sessionId;           // the console session asked; 0xFFFFFFFF when there is none
  wchar_t userName[kUserNameChars];
  wchar_t domain[kDomainChars];
};

// Filled by SrvGetCurrentUserInfoAdvanced: the basic record followed by the user's roaming
// application-data folder. `size` must be sizeof(UserInfoAdvanced).
struct UserInfoAdvanced {
  std::uint32_t size;
  std::uint32_t sessionId;
  wchar_t userName[kUserNameChars];
  wchar_t domain[kDomainChars];
  wchar_t appDataFolder[kFolderChars];
};

// Each returns 0 or a Windows error code: 13 (ERROR_INVALID_DATA) for a null record or a
// wrong size, 1008 (ERROR_NO_TOKEN) when the console session names no user. On failure the
// record's strings are empty.
using SrvGetCurrentUserInfoBasicFn = std::uint32_t(WINAPI*)(UserInfoBasic* info);
using SrvGetCurrentUserInfoAdvancedFn = std::uint32_t(WINAPI*)(UserInfoAdvanced* info);
// 0 when the calling thread now acts as the console user (or already ran as that user);
// otherwise the error of WTSQueryUserToken or ImpersonateLoggedOnUser, the thread unchanged.
using SrvImpersonateCurrentUserFn = std::uint32_t(WINAPI*)();
// 0, or the error of RevertToSelf; harmless on a thread that does not impersonate.
using SrvRevertToSelfFn = std::uint32_t(WINAPI*)();

inline constexpr char kGetCurrentUserInfoBasic[] = "SrvGetCurrentUserInfoBasic";
inline constexpr char kGetCurrentUserInfoAdvanced[] = "SrvGetCurrentUserInfoAdvanced";
inline constexpr char kImpersonateCurrentUser[] = "SrvImpersonateCurrentUser";
inline constexpr char kRevertToSelf[] = "SrvRevertToSelf";
inline constexpr wchar_t kLibraryName[] = L"kyusers.dll";

}  // namespace kyusers
