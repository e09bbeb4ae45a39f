// CUserProfile: the user logged on at the console, as a LocalSystem service must reach them.
// In a service, HKEY_CURRENT_USER is the service account's own hive, HKEY_CLASSES_ROOT shows no
// user's classes, and the process environment and the shell's folders are the system
// profile's, even while a thread impersonates the user. So everything of the user is reached
// through what identifies them: the SID (their hive under HKEY_USERS), and the token (their
// known folders and their environment), both captured once through the users library.
//
// Thread-safe: a captured profile never changes; Current() and Refresh() swap it under a lock.
#pragma once

#include <windows.h>
#include <shlobj.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/unique_handle.h"
#include "users/user_environment.h"

namespace velora::utils {

class CUserProfile {
 public:
  // Captures the console user: name and domain from kyusers.dll, the SID through
  // LookupAccountNameW, the token by impersonating the user through kyusers.dll. 0 with
  // `profile` set (a user whose token could not be had is kept, without a token, and the
  // failure logged), or the first failing step's code with `profile` untouched:
  // kErrorUsersNotLoaded, the library's error (ERROR_NO_TOKEN when nobody is logged on), or
  // ERROR_NONE_MAPPED when the account has no SID. Each failure is logged.
  [[nodiscard]] static std::uint32_t Capture(std::shared_ptr<const CUserProfile>& profile);

  // The process-wide profile: captured on first use, then the one the last Refresh() found;
  // null when no user was found then.
  static std::shared_ptr<const CUserProfile> Current();
  // Captures again and makes the result current (null when no user is found); returns it.
  static std::shared_ptr<const CUserProfile> Refresh();
  // Makes `profile` current (tests, and tools that act for a user they were given).
  static void SetCurrent(std::shared_ptr<const CUserProfile> profile);

  const std::wstring& UserName() const { return userName_; }
  const std::wstring& Domain() const { return domain_; }
  const std::wstring& Sid() const { return sid_; }
  bool HasToken() const { return token_ && token_->valid(); }
  // The captured token (query, impersonate, duplicate), owned by the profile; null without one.
  HANDLE Token() const { return HasToken() ? token_->get() : nullptr; }

  // One of the user's known folders (FOLDERID_Startup, FOLDERID_RoamingAppData, ...), through
  // the user's token, without a trailing backslash: 0 with `folder` set, ERROR_NO_TOKEN
  // without a token, or the shell's HRESULT; `folder` untouched on failure.
  [[nodiscard]] std::uint32_t KnownFolder(REFKNOWNFOLDERID id, std::wstring& folder) const;

  // The user's environment; unavailable (every lookup fails) without a token.
  std::shared_ptr<const CEnvironment> Environment() const { return environment_; }

  // A profile built from parts, for tests.
  static std::shared_ptr<const CUserProfile> Make(std::wstring userName, std::wstring domain, std::wstring sid,
                                                  ky::unique_handle token);

 private:
  CUserProfile() = default;

  std::wstring userName_;
  std::wstring domain_;
  std::wstring sid_;
  std::shared_ptr<const ky::unique_handle> token_;
  std::shared_ptr<const CEnvironment> environment_;
};

// The string SID of a "DOMAIN\\name" account through LookupAccountNameW on this machine: true
// with `sid` set, false with it untouched.
[[nodiscard]] bool SidOfAccount(const std::wstring& account, std::wstring& sid);

}  // namespace velora::utils
