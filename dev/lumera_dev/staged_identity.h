// A second identity under Wine: the console user "stageduser", who is not the account the
// host and the tools run as. On Windows a service reaches the logged-on user only through
// calls that take the user's SID or token; under Wine there is one account, so the
// development stand-ins here answer those calls for the staged user instead. The module's
// code stays the code that runs on Windows.
//
// The staging tool writes, beside ConsoleSession (console_session.h):
//
//   HKLM\Software\Nexalon\Lumera\Development (or the key LUMERA_DEV_KEY names)
//     StagedUser     REG_SZ  the account name, e.g. "stageduser"
//     StagedUserSid  REG_SZ  its SID, e.g. "S-1-5-21-0-0-0-1001"
//   HKLM\Software\Microsoft\Windows NT\CurrentVersion\ProfileList\<SID>  ProfileImagePath
//   HKEY_USERS\<SID>\Environment  the user's own variables ("Path" among them)
//
// Both values present = an identity is staged. InstallStagedIdentity(module) redirects the
// module's imports of the calls below; with no identity staged each stand-in calls the
// original, except that ConsoleSession 0 always means nobody is at the console:
//   WTSQuerySessionInformationW  WTSUserName "" while ConsoleSession is 0, else the staged
//                                name; WTSDomainName "" while 0, else the computer name
//   WTSQueryUserToken            ConsoleSession 0: FALSE, ERROR_NO_TOKEN; staged and on: a new
//                                primary token duplicated from the process's ("a user token")
//   LookupAccountNameW/SidW      "name" or "ANY\name" <-> the staged SID, domain = computer
//   SHGetKnownFolderPath, SHGetFolderPathW, GetUserProfileDirectoryW (user token): the staged
//                                profile's folders
//   CreateEnvironmentBlock, ExpandEnvironmentStringsForUserW: the staged user's block for a
//                                user token, the machine's system variables for NULL
// A "user token" is a token whose TokenId differs from the process token's. Every value is
// read afresh on each call, so staging may change while a program runs.
#pragma once

#include <windows.h>

#include <string>

namespace lumera::dev {

inline constexpr wchar_t kStagedUserValue[] = L"StagedUser";
inline constexpr wchar_t kStagedUserSidValue[] = L"StagedUserSid";
inline constexpr wchar_t kProfileListKey[] = L"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

struct StagedIdentity {
  std::wstring user;     // account name as staged
  std::wstring sid;      // string SID
  std::wstring profile;  // profile folder, no trailing backslash
};

// Reads the staged identity of this process's development key. Returns false (identity
// unchanged) outside Wine or when StagedUser or StagedUserSid is missing or empty. The
// profile comes from ProfileList\<SID>\ProfileImagePath (expanded with the machine's
// variables), else ProfilesDirectory\<user>.
[[nodiscard]] bool ReadStagedIdentity(StagedIdentity& identity);

// Redirects `module`'s imports of the functions listed above to the stand-ins. Returns how
// many import slots were patched: 0 outside Wine, for a null module, or when the module
// imports none of them. Safe under the loader lock (it only rewrites the module's own import
// table), so a DLL may call it on itself from DllMain.
int InstallStagedIdentity(HMODULE module);

}  // namespace lumera::dev
