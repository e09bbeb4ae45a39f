// Points a loaded module's imports of one function at another function, by patching the
// module's import address table, the way Windows' own compatibility shims redirect calls.
// Used under Wine only: the development host gives LumeraPlg.dll process figures Wine does not
// keep (host/wine/process_accounting_shims.h), and the staged identity answers per-user calls
// for a second user (staged_identity.h); the module's code stays as it is.
#pragma once

#include <windows.h>

namespace lumera::dev {

// Redirects every import of `function` from the library `dll` (compared without case, with
// or without ".dll") in `module` to `replacement`. Returns how many table slots were patched;
// 0 when the module does not import it by name. `*original`, when given and a slot was
// patched, receives the address the slot held before.
[[nodiscard]] int RedirectImport(HMODULE module, const char* dll, const char* function, void* replacement,
                                 void** original = nullptr);

// Calls `original`, a redirected function's own address, or fails as a missing export would:
// FALSE with ERROR_PROC_NOT_FOUND.
template <class Fn, class... Args>
BOOL CallOriginal(Fn original, Args... args) {
  if (original == nullptr) {
    ::SetLastError(ERROR_PROC_NOT_FOUND);
    return FALSE;
  }
  return original(args...);
}

}  // namespace lumera::dev
