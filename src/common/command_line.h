// This process's command line split into arguments the way Windows programs split it.
#pragma once

#include <string>
#include <vector>

namespace ky {

// The arguments of this process, the program's own name first; false, with `out` empty, when
// the command line cannot be split (CommandLineToArgvW fails only when out of memory).
[[nodiscard]] bool ProcessArguments(std::vector<std::wstring>& out);

}  // namespace ky
