// The file a startup command runs: the program of a command line, or the DLL that
// rundll32 loads.
#pragma once

#include <string>
#include <vector>

namespace startup {

// Picks the target out of already split arguments: the DLL argument of rundll32.exe /
// rundll.exe (cut at its comma), else the program, re-joining an unquoted path that the
// splitter cut at blanks until a piece names an ".exe" or ".bat". False when neither is found.
[[nodiscard]] bool SelectCommandTarget(const std::vector<std::wstring>& args, std::wstring& target);

// Splits the command with CommandLineToArgvW, selects the target, searches the path for a
// bare file name and expands environment variables. False, `target` untouched, on failure.
[[nodiscard]] bool ResolveCommandTarget(const std::wstring& command, std::wstring& target);

}  // namespace startup
