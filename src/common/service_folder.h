// The module's own folders under ProgramData as a LocalSystem service keeps them: made by the
// service itself, never by a thread that impersonates a user (who would then own them), with
// an explicit access list instead of the one inherited from ProgramData, which lets every user
// create files and folders. Nothing here logs: the caller logs what was found and done.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "common/unique_handle.h"

namespace ky {

// Owner Administrators; full control for SYSTEM and Administrators and read and execute for
// Users, on the folder and everything made inside it; nothing inherited from the folder above.
inline constexpr wchar_t kServiceFolderSddl[] =
    L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

enum class FolderState : std::uint32_t { kCreated, kKept, kRepaired };

struct FolderResult {
  FolderState state = FolderState::kKept;
  std::wstring found;  // the owner and access list found, as SDDL, when repaired
};

// Creates `folder` (its parent must exist) with kServiceFolderSddl, or checks the existing
// one: an owner other than SYSTEM or Administrators, an access list that is inherited, absent,
// or that grants anyone else more than read and execute, is replaced by kServiceFolderSddl.
// Runs as the process even when the calling thread impersonates. Returns 0 with `result` set,
// or the failing call's code with `result` untouched (the folder may then exist as it was).
[[nodiscard]] std::uint32_t EnsureServiceFolder(const std::wstring& folder, FolderResult& result);

// Whether `descriptor` (owner and access list) is one EnsureServiceFolder keeps as it is.
[[nodiscard]] bool IsServiceDescriptor(PSECURITY_DESCRIPTOR descriptor);

// Whether the owner and access list of `folder` are the service's own, as EnsureServiceFolder
// leaves them: 0 with `secure` set and `sddl` (owner and access list) filled, or the failing
// call's code.
[[nodiscard]] std::uint32_t CheckServiceFolder(const std::wstring& folder, bool& secure, std::wstring& sddl);

// Suspends the calling thread's impersonation for its own lifetime, so that what is done
// meanwhile is done as the process; restores the same token at the end.
class ScopedProcessIdentity {
 public:
  ScopedProcessIdentity();
  ~ScopedProcessIdentity();
  ScopedProcessIdentity(const ScopedProcessIdentity&) = delete;
  ScopedProcessIdentity& operator=(const ScopedProcessIdentity&) = delete;
  // Whether the thread was impersonating when this began.
  [[nodiscard]] bool WasImpersonating() const noexcept { return token_.valid(); }

 private:
  unique_handle token_;
};

}  // namespace ky
