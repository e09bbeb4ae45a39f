// What `lumerahost.exe install` adds beside the service and `uninstall` takes away: the logon
// entry that starts the user's delayed apps, and that launcher among the agent's application
// paths, which is how the apps filter keeps the product's programs out of every list and report.
#pragma once

#include <cstdint>
#include <string>

#include "host_config.h"

namespace host {

inline constexpr wchar_t kMachineRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kLauncherRunValue[] = L"LumeraDelayedStart";
inline constexpr wchar_t kLauncherProgram[] = L"StartLauncher.exe";
inline constexpr wchar_t kLauncherArguments[] = L" /delayed";
// The product's application in the agent's store.
inline constexpr wchar_t kAgentApplication[] = L"Lumera";

// The Run value's command: the launcher in `folder` (ending in a backslash), by its full path.
std::wstring LauncherCommand(const std::wstring& folder);

// Writes the machine's Run value, then the product's "app_paths" (the launcher's path) through
// AppAgentDP.dll of `folder` in the agent's folder: the one `config` names (item 422 "Desktop"),
// else DefaultAgentFolder(), created when missing. 0, or the first failing step's error; `note`
// says what could not be recorded and why, or stays empty.
[[nodiscard]] std::uint32_t AddOwnEntries(const std::wstring& folder, const HostConfig& config, std::wstring& note);
// Deletes the Run value (a missing one is fine) and the product's application from the agent's
// store. 0 or the first error.
[[nodiscard]] std::uint32_t RemoveOwnEntries(const HostConfig& config);

}  // namespace host
