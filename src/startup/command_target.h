// The file a startup command runs: the program of a command line, or the DLL that
// rundll32 loads.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "startup/startup_item.h"
#include "users/user_environment.h"

namespace startup {

// Picks the target out of already split arguments: the DLL argument of rundll32.exe /
// rundll.exe (cut at its comma), else the program, re-joining an unquoted path that the
// splitter cut at blanks until a piece names an ".exe" or ".bat". False when neither is found.
[[nodiscard]] bool SelectCommandTarget(const std::vector<std::wstring>& args, std::wstring& target);

// Splits the command with CommandLineToArgvW, selects the target, searches the Path of
// `environment` for a bare file name and expands environment variables in `environment`.
// False, `target` untouched, on failure (also when the environment is unavailable).
[[nodiscard]] bool ResolveCommandTarget(const std::wstring& command, std::wstring& target,
                                        const velora::utils::CEnvironment& environment);

// The environment an item's command is read in: the console user's for a user's entry
// (unavailable when no user or no token is known), the machine's for the machine's.
std::shared_ptr<const velora::utils::CEnvironment> EnvironmentOf(const StartupItem& item);

}  // namespace startup
