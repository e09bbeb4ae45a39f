// The staged user as Windows keeps an account, and its logon and logoff:
// - create: ProfileList\<SID> (ProfileImagePath), the profile folders, the hive
//   HKEY_USERS\<SID> with the keys a new profile has, HKEY_USERS\<SID>_Classes reachable as
//   HKEY_USERS\<SID>\Software\Classes through a registry link, and StagedUser / StagedUserSid in
//   the development key. Running it again changes nothing that is already there.
// - logon: loads the hive saved in the profile (kHiveFileName) unless it is loaded already;
//   without a saved hive it creates the user.
// - logoff: saves both roots of the hive into the profile, then unloads them.
// Keys under HKEY_USERS\<SID> live under Wine only as long as the wineserver; logoff and logon
// carry them from one server to the next, as Windows carries a hive in NTUSER.DAT.
#pragma once

#include <string>

namespace winestandins::staging {

struct StagedUser {
  std::wstring name;
  std::wstring sid;
  std::wstring devKey;  // below HKLM
};

// The SID for `name`: `explicitSid` when given, else the development key's StagedUserSid when
// its StagedUser is `name` (compared without case), else kDefaultStagedSid.
std::wstring SidFor(const std::wstring& name, const std::wstring& explicitSid, const std::wstring& devKey);

// The profile folder the user has or gets: ProfileList's ProfileImagePath for the SID, else
// ProfilesDirectory\<name>; false with `reason` when neither can be had.
[[nodiscard]] bool ProfileFor(const StagedUser& user, std::wstring& profile, std::wstring& reason);

// Each returns true with one line of what it did in `report`, or false with a one-line
// `reason`; a failure part-way leaves what was made before it.
[[nodiscard]] bool CreateStagedUser(const StagedUser& user, std::wstring& report, std::wstring& reason);
[[nodiscard]] bool LogonStagedUser(const StagedUser& user, std::wstring& report, std::wstring& reason);
[[nodiscard]] bool LogoffStagedUser(const StagedUser& user, std::wstring& report, std::wstring& reason);

}  // namespace winestandins::staging
