// What Windows' shell starts when a user logs on, in its order: the machine's Run values
// (HKLM ...\Run, then HKLM\Software\Wow6432Node\...\Run), the user's (HKEY_USERS\<SID>\...\Run),
// the files of the common Startup folder, then those of the user's. From Windows 8 on the
// shell passes over an entry whose StartupApproved value marks it disabled: the value named
// like the Run value or the file under ...\Explorer\StartupApproved\Run (Run32 for the
// Wow6432Node key) or \StartupFolder, below the entry's own root (HKLM for the machine's,
// HKEY_USERS\<SID> for the user's).
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

namespace winestandins::logon {

inline constexpr wchar_t kRunSubkey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kRunWowSubkey[] = L"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kApprovedSubkey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved";
inline constexpr wchar_t kApprovedRun[] = L"Run";
inline constexpr wchar_t kApprovedRun32[] = L"Run32";
inline constexpr wchar_t kApprovedStartupFolder[] = L"StartupFolder";
inline constexpr std::size_t kMaxApprovedBytes = 128;

// A key: a predefined root and the path below it ("" for the root itself).
struct RegistryPlace {
  HKEY root = nullptr;
  std::wstring subkey;
  // "HKLM\...", "HKEY_USERS\..." as a person reads it.
  std::wstring Text() const;
};

enum class EntryKind { kRunValue, kStartupFile };

// One place a logon starts things from, and the key of the StartupApproved values for it.
struct LogonSource {
  EntryKind kind = EntryKind::kRunValue;
  RegistryPlace run;   // kRunValue: the Run key
  std::wstring folder;  // kStartupFile: the folder, without a trailing backslash
  RegistryPlace approval;
};

struct LogonEntry {
  EntryKind kind = EntryKind::kRunValue;
  std::wstring name;     // the Run value's name, or the file's name with its extension
  std::wstring command;  // the Run value's data as stored, or the file's full path
  bool expand = false;   // a REG_EXPAND_SZ Run value, to be expanded in the user's environment
  RegistryPlace approval;
  std::wstring source;   // the key or folder it came from
};

// The sources of a logon, in the order Windows starts them, for the user with `sid` whose
// Startup folder is `userStartup`; `commonStartup` is the machine's Startup folder.
std::vector<LogonSource> LogonSources(const std::wstring& sid, const std::wstring& commonStartup,
                                      const std::wstring& userStartup);

// Appends the source's entries: its Run key's string values in the key's order, or its
// folder's files (not folders, not desktop.ini) by name. A missing key or folder adds nothing.
void CollectEntries(const LogonSource& source, std::vector<LogonEntry>& entries);

// The StartupApproved rule: true when the value holds at least a 32-bit word and that first
// little-endian word is 1 or 3; false for anything else, a missing value included.
bool ApprovalDisables(const BYTE* data, std::size_t size);

// Reads the entry's StartupApproved value and applies ApprovalDisables to it.
bool DisabledByApproval(const LogonEntry& entry);

}  // namespace winestandins::logon
