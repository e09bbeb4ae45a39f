// CKYUsers: kyusers.dll bound at run time, one per process. The library is loaded and
// unloaded under Lock() held exclusively and called under it held shared, so a caller that
// must keep the library across several calls (impersonate, work, revert) holds it shared.
#pragma once

#include <cstdint>
#include <string>

#include "common/sync_rw_lock.h"
#include "common/module_library.h"
#include "lumera/kyusers.h"

namespace velora::utils {

inline constexpr std::uint32_t kErrorUsersNotLoaded = ERROR_MOD_NOT_FOUND;  // 126

class CKYUsers {
 public:
  // The process-wide instance, created on first use; it loads nothing until asked.
  static CKYUsers& Instance();

  CKYUsers() = default;
  CKYUsers(const CKYUsers&) = delete;
  CKYUsers& operator=(const CKYUsers&) = delete;

  // Makes sure kyusers.dll (beside this binary, else on the search path) is loaded with every
  // export bound; true when it is. A half-bound library is freed again.
  [[nodiscard]] bool ReloadDll();
  // Frees the library; calls then fail with kErrorUsersNotLoaded until the next ReloadDll.
  void UnloadDll();
  [[nodiscard]] bool IsLoaded();

  // The console user's name and domain; 0 or the library's error (kErrorUsersNotLoaded when
  // not loaded). The outputs are cleared first.
  [[nodiscard]] std::uint32_t GetCurrentUserInfoBasic(std::wstring& userName, std::wstring& domain);
  // The advanced record as the library fills it; 0 or an error, the record zeroed on failure.
  [[nodiscard]] std::uint32_t GetCurrentUserInfoAdvanced(kyusers::UserInfoAdvanced& info);
  // Impersonates the console user on the calling thread; 0 or an error.
  [[nodiscard]] std::uint32_t ImpersonateCurrentUser();
  // Ends the calling thread's impersonation; 0 or an error.
  [[nodiscard]] std::uint32_t RevertToSelf();

  CSyncRWLock& Lock() { return lock_; }

 private:
  bool BoundLocked() const;

  CSyncRWLock lock_;
  ky::ModuleLibrary module_;
  kyusers::SrvGetCurrentUserInfoBasicFn basic_ = nullptr;
  kyusers::SrvGetCurrentUserInfoAdvancedFn advanced_ = nullptr;
  kyusers::SrvImpersonateCurrentUserFn impersonate_ = nullptr;
  kyusers::SrvRevertToSelfFn revert_ = nullptr;
};

// Impersonates the console user for its own life, holding the library's lock shared so the
// library cannot go away before the revert.
class CUserImpersonation {
 public:
  explicit CUserImpersonation(CKYUsers& users = CKYUsers::Instance());
  ~CUserImpersonation();
  CUserImpersonation(const CUserImpersonation&) = delete;
  CUserImpersonation& operator=(const CUserImpersonation&) = delete;
  bool Active() const { return active_; }

 private:
  CKYUsers& users_;
  SharedLock hold_;
  bool active_ = false;
};

}  // namespace velora::utils
