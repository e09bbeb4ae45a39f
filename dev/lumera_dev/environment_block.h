// The environment blocks the staged identity's userenv stand-ins hand out, built the way
// Windows builds a logon environment: the machine's system variables, then the user's
// profile variables, then the user's own HKEY_USERS\<SID>\Environment values, whose "Path"
// is appended to the machine's instead of replacing it.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "lumera_dev/staged_identity.h"

namespace lumera::dev {

// Variable names compare without case, ordinally on upper case, as Windows sorts a block.
struct VariableNameLess {
  bool operator()(const std::wstring& a, const std::wstring& b) const;
};
using Variables = std::map<std::wstring, std::wstring, VariableNameLess>;

// Replaces each %NAME% whose NAME is set in `variables`; an unknown %NAME% stays as written.
std::wstring ExpandVariables(const std::wstring& text, const Variables& variables);

// The block: "NAME=value" strings, each ending in a NUL, sorted by name, then one more NUL.
std::vector<wchar_t> ToEnvironmentBlock(const Variables& variables);

// The variables of a block such as GetEnvironmentStringsW returns; entries without a name
// ("=C:=C:\\", kept by the shell for drive folders) are kept under their full text.
Variables FromEnvironmentBlock(const wchar_t* block);

// The system variables only: SystemRoot, SystemDrive, ProgramData, ALLUSERSPROFILE, PUBLIC,
// the Program Files folders, COMPUTERNAME, then Session Manager\Environment (plain values
// first, expandable ones expanded after). Nothing of the calling process's own environment.
Variables MachineVariables();

// The staged user's logon block: `base` (the machine's variables, or the process's own merged
// with them), USERPROFILE, HOMEDRIVE, HOMEPATH, APPDATA, LOCALAPPDATA, USERNAME, USERDOMAIN,
// TEMP and TMP of the profile, then the user's own Environment values.
Variables UserVariables(const StagedIdentity& identity, Variables base);

}  // namespace lumera::dev
