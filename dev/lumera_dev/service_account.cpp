#include "lumera_dev/service_account.h"

#include <mutex>
#include <string>

#include "common/critical_section.h"
#include "lumera_dev/console_session.h"
#include "lumera_dev/import_redirect.h"
#include "lumera_dev/stand_ins.h"

namespace lumera::dev {
namespace {

constexpr wchar_t kMarkerPrefix[] = L"Local\\Lumera.Dev.LocalSystem.";
// Tokens are queried right after they are opened, so the last few opened are enough to know.
constexpr std::size_t kRememberedTokens = 64;

std::wstring MarkerName(DWORD pid) { return kMarkerPrefix + std::to_wstring(pid); }

bool TokenIdOf(HANDLE token, LUID& id) {
  const auto original = KY_DEV_ORIGINAL(L"advapi32.dll", GetTokenInformation);
  TOKEN_STATISTICS statistics{};
  DWORD bytes = 0;
  if (original == nullptr || !original(token, TokenStatistics, &statistics, sizeof statistics, &bytes)) return false;
  id = statistics.TokenId;
  return true;
}

// The ids of tokens opened for processes that stand for LocalSystem; a token id is never
// reused while the system runs.
class SystemTokens {
 public:
  void Remember(const LUID& id) {
    std::lock_guard hold(lock_);
    ids_[next_++ % kRememberedTokens] = id;
    if (count_ < kRememberedTokens) ++count_;
  }
  bool Knows(const LUID& id) {
    std::lock_guard hold(lock_);
    for (std::size_t i = 0; i < count_; ++i) {
      if (ids_[i].LowPart == id.LowPart && ids_[i].HighPart == id.HighPart) return true;
    }
    return false;
  }

 private:
  ky::CriticalSection lock_;
  LUID ids_[kRememberedTokens] = {};
  std::size_t next_ = 0;
  std::size_t count_ = 0;
};

// Namespace scope rather than a function-local static: see staged_identity.cpp.
SystemTokens g_systemTokens;

BOOL WINAPI StandInOpenProcessToken(HANDLE process, DWORD access, PHANDLE token) {
  const auto original = KY_DEV_ORIGINAL(L"advapi32.dll", OpenProcessToken);
  if (original == nullptr || !original(process, access, token)) return FALSE;
  LUID id{};
  if (StandsForLocalSystem(::GetProcessId(process)) && TokenIdOf(*token, id)) g_systemTokens.Remember(id);
  ::SetLastError(0);
  return TRUE;
}

BOOL WINAPI StandInGetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, LPVOID buffer, DWORD length,
                                       PDWORD needed) {
  LUID id{};
  if (what != TokenUser || !TokenIdOf(token, id) || !g_systemTokens.Knows(id)) {
    const auto original = KY_DEV_ORIGINAL(L"advapi32.dll", GetTokenInformation);
    if (original == nullptr) {
      ::SetLastError(ERROR_PROC_NOT_FOUND);
      return FALSE;
    }
    return original(token, what, buffer, length, needed);
  }
  const DWORD sidBytes = ::GetSidLengthRequired(1);
  const DWORD required = sizeof(TOKEN_USER) + sidBytes;
  if (needed == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *needed = required;
  if (buffer == nullptr || length < required) {
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  auto* user = static_cast<TOKEN_USER*>(buffer);
  PSID sid = static_cast<BYTE*>(buffer) + sizeof(TOKEN_USER);
  DWORD size = sidBytes;
  if (!::CreateWellKnownSid(WinLocalSystemSid, nullptr, sid, &size)) return FALSE;
  user->User.Sid = sid;
  user->User.Attributes = 0;
  return TRUE;
}

}  // namespace

LocalSystemStandIn::LocalSystemStandIn() {
  if (!RunningUnderWine()) return;
  marker_.reset(::CreateEventW(nullptr, TRUE, FALSE, MarkerName(::GetCurrentProcessId()).c_str()));
}

bool StandsForLocalSystem(DWORD pid) {
  if (pid == 0 || !RunningUnderWine()) return false;
  ky::unique_handle marker(::OpenEventW(SYNCHRONIZE, FALSE, MarkerName(pid).c_str()));
  return marker.valid();
}

int InstallLocalSystemStandIn(HMODULE module) {
  if (module == nullptr || !RunningUnderWine()) return 0;
  int patched = RedirectImport(module, "advapi32.dll", "OpenProcessToken",
                               reinterpret_cast<void*>(&StandInOpenProcessToken));
  patched += RedirectImport(module, "advapi32.dll", "GetTokenInformation",
                            reinterpret_cast<void*>(&StandInGetTokenInformation));
  return patched;
}

}  // namespace lumera::dev
