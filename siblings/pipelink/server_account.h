// Who serves a pipe: a client of the service's pipes talks only to a server that runs as
// LocalSystem, so a user who managed to serve the name first learns nothing and is told nothing.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace pipelink {

// 0 when the process at the other end of `pipe` (a client's handle of `path`) runs as
// LocalSystem. ERROR_ACCESS_DENIED, logged with the serving process, when it runs as any other
// account; otherwise the code of the call that failed (GetNamedPipeServerProcessId, OpenProcess,
// OpenProcessToken, GetTokenInformation), logged.
[[nodiscard]] std::uint32_t CheckServerAccount(HANDLE pipe, const std::wstring& path);

}  // namespace pipelink
