// kyusers.dll: facts about the user logged on at the console, for a service that runs apart
// from that user.
//
// Who "the current user" is: the user of the active console session
// (WTSGetActiveConsoleSessionId, then WTSQuerySessionInformationW with WTSUserName and
// WTSDomainName). Where the terminal-services answer is empty, the process's own user
// (GetUserNameW) and the computer name stand in, so a program started by hand still gets an
// answer.
//
// Application-data folder: the roaming folder (CSIDL_APPDATA) of that user, read through the
// user's token (WTSQueryUserToken) when the caller may have it, else the caller's own folder
// when the caller runs as that very user; otherwise the field stays absent.
//
// Impersonation: WTSQueryUserToken + ImpersonateLoggedOnUser on the calling thread. When the
// token cannot be had but the caller already runs as the console user, the call succeeds
// without impersonating, because every per-user lookup already sees that user. Otherwise it
// fails with the Windows error code. Revert ends the calling thread's impersonation.
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
// wrong size, 1008 (ERROR_NO_TOKEN) when nobody is logged on and no user name is known at
// all. On failure the record's strings are empty.
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
