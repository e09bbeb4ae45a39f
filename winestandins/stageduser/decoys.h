// The decoys of a staged boot: startup entries of the account the host and the tools run as,
// which plays LocalSystem, so that a module that reads that account's HKCU, HKCR, folders or
// environment instead of the logged-on user's shows it by listing, changing or reporting one.
// Every decoy's name begins with "Decoy", and so does every text its program's version
// resource gives (the report names an app by those texts):
// - Run value "DecoyRun" in HKCU\...\Run, starting a copy DecoyRun.exe;
// - "DecoyStartup.exe" in the account's Startup folder, with a StartupApproved\StartupFolder value;
// - a Store package "DecoyStoreApp_..." under HKCU\Software\Classes\Local Settings\...\Packages
//   (the AppModel repository), its folder holding AppxManifest.xml with the startup task
//   "DecoyStartupTask", and the task's State (enabled) under ...\SystemAppData\<family>\<task>;
// - a record "DecoyStored" of a disabled Run value in the account's roaming
//   Nexalon\Lumera\Storage.json, with what makes it live on every Windows version: its program
//   DecoyStored.exe, and the Run value itself marked disabled in StartupApproved\Run (Windows 8
//   on keeps a disabled value in the Run key).
// The programs are copies of `program` in <local application data>\LumeraDecoys.
#pragma once

#include <string>
#include <vector>

namespace winestandins::staging {

inline constexpr wchar_t kDecoyFolderName[] = L"LumeraDecoys";
inline constexpr wchar_t kDecoyRunValue[] = L"DecoyRun";
inline constexpr wchar_t kDecoyStartupFile[] = L"DecoyStartup.exe";
inline constexpr wchar_t kDecoyStoredName[] = L"DecoyStored";
inline constexpr wchar_t kDecoyPackageName[] = L"DecoyStoreApp";
inline constexpr wchar_t kDecoyPublisherId[] = L"decoyd3c0y0aa";
inline constexpr wchar_t kDecoyTaskId[] = L"DecoyStartupTask";
inline constexpr std::size_t kMaxStorageBytes = 4 * 1024 * 1024;

// Writes every decoy, replacing earlier ones of the same names; true with one line per decoy
// in `written`, or false with a one-line `reason` (what was written before it stays). A
// Storage.json that is not a JSON object is left as it is, and refused.
[[nodiscard]] bool WriteDecoys(const std::wstring& program, std::vector<std::wstring>& written, std::wstring& reason);

}  // namespace winestandins::staging
