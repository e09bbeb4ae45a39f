// The second identity of a staged boot ("stageduser") as the development key names it and as
// Windows holds an account: a SID, a profile folder listed under ProfileList and a hive under
// HKEY_USERS. Shared by stageduser.exe, which creates it, and stagedlogon.exe, which logs it on.
//
//   HKLM\<development key>  StagedUser (REG_SZ) the account's name, StagedUserSid (REG_SZ) its SID
//
// The development key is lumera::dev::kDevelopmentKey, or the path below HKLM that the
// environment variable LUMERA_DEV_KEY names, so a test can stage an identity of its own.
#pragma once

#include <windows.h>

#include <string>

#include "lumera_dev/console_session.h"
#include "lumera_dev/staged_identity.h"

namespace winestandins {

using lumera::dev::kProfileListKey;
using lumera::dev::kStagedUserSidValue;
using lumera::dev::kStagedUserValue;
inline constexpr const wchar_t* kDevKeyOverride = lumera::dev::kKeyOverride;
inline constexpr wchar_t kDefaultStagedSid[] = L"S-1-5-21-0-0-0-1001";
inline constexpr wchar_t kProfileImagePathValue[] = L"ProfileImagePath";
inline constexpr wchar_t kProfilesDirectoryValue[] = L"ProfilesDirectory";
inline constexpr wchar_t kClassesSuffix[] = L"_Classes";
// The saved hive in the profile folder; see hive_image.h for its format.
inline constexpr wchar_t kHiveFileName[] = L"NTUSER.lumera";
inline constexpr std::size_t kMaxAccountNameChars = 20;  // Windows' limit for a local account

// Folders of a profile, relative to it.
inline constexpr wchar_t kRoamingFolder[] = L"AppData\\Roaming";
inline constexpr wchar_t kLocalFolder[] = L"AppData\\Local";
inline constexpr wchar_t kStartupFolder[] = L"AppData\\Roaming\\Microsoft\\Windows\\Start Menu\\Programs\\Startup";

struct Account {
  std::wstring name;
  std::wstring sid;
  std::wstring profile;  // without a trailing backslash; empty when ProfileList has none
  bool staged = false;   // named by the development key rather than being this process's own
};

// The development key below HKLM: what LUMERA_DEV_KEY names, else lumera::dev::kDevelopmentKey.
inline std::wstring DevelopmentKey() { return lumera::dev::DevelopmentKeyPath(); }

// StagedUser and StagedUserSid of `devKey` (below HKLM), `staged` set; false, `account`
// untouched, unless both are non-empty strings.
[[nodiscard]] bool ReadStagedAccount(const std::wstring& devKey, Account& account);

// The account of this process's token: its user name and SID; false, `account` untouched,
// when the token or its user cannot be read.
[[nodiscard]] bool ReadProcessAccount(Account& account);

// The account a logon is for: the staged one when the development key names one, else this
// process's, with the profile from ProfileList. False, `account` untouched, when neither can be read.
[[nodiscard]] bool ReadLogonAccount(Account& account);

// ProfileImagePath of the SID's ProfileList entry with environment references expanded and no
// trailing backslash; false, `profile` untouched, when there is none.
[[nodiscard]] bool ProfileOfSid(const std::wstring& sid, std::wstring& profile);

// Where ProfileList puts profiles ("C:\users"), expanded, without a trailing backslash; false,
// `folder` untouched, when the value is missing.
[[nodiscard]] bool ProfilesDirectory(std::wstring& folder);

// True for the string form of a machine or domain account's SID ("S-1-5-21-...") that Windows parses.
bool IsAccountSid(const std::wstring& sid);
// True for a name Windows accepts for a local account: 1-20 characters, none of "/\[]:;|=,+*?<>@
// and not only dots and spaces.
bool IsAccountName(const std::wstring& name);

// Case-insensitive comparison, as Windows compares account names.
bool SameName(const std::wstring& a, const std::wstring& b);

inline std::wstring ClassesKeyOf(const std::wstring& sid) { return sid + kClassesSuffix; }

}  // namespace winestandins
