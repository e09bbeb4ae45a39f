// A second account for one test: a user logged on at the console who is not the account the
// test runs as, staged the way the development rig stages one (a development key named through
// LUMERA_DEV_KEY, the user's ProfileList entry, profile folders and hive under HKEY_USERS), so
// that code reaching the user through HKEY_CURRENT_USER or this process's environment finds the
// wrong account. The stand-ins that answer for the user must be installed on the program
// (lumera::dev::InstallStagedIdentity); programs the test starts inherit the key's name.
#pragma once

#include <windows.h>

#include <string>

#include "support/scratch_folder.h"

namespace testsupport {

class StagedUser {
 public:
  // Stages a unique account, logged on when `loggedOn`, and makes it the module's current user.
  explicit StagedUser(bool loggedOn = true);
  // Removes the account, its keys and folders, and gives the module back the test's own user.
  ~StagedUser();
  StagedUser(const StagedUser&) = delete;
  StagedUser& operator=(const StagedUser&) = delete;

  // Flips the console session and makes the module capture the user again.
  void SetLoggedOn(bool loggedOn);

  const std::wstring& Name() const { return name_; }
  const std::wstring& Sid() const { return sid_; }
  // The profile folder, without a trailing backslash.
  const std::wstring& Profile() const { return profile_; }
  std::wstring Roaming() const { return profile_ + L"\\AppData\\Roaming"; }
  std::wstring Local() const { return profile_ + L"\\AppData\\Local"; }
  std::wstring Startup() const { return Roaming() + L"\\Microsoft\\Windows\\Start Menu\\Programs\\Startup"; }

  // A key path of the user's hive, below HKEY_USERS.
  std::wstring Hive(const std::wstring& subkey) const { return sid_ + L"\\" + subkey; }
  // The user's Run key below HKEY_USERS, and its location as an item names it.
  std::wstring RunKey() const;
  std::wstring RunLocation() const { return L"HKEY_USERS\\" + RunKey(); }
  // Writes a value of the user's Run key.
  void SetRun(const std::wstring& name, const std::wstring& command) const;
  // The user's own Path, as their Environment key holds it.
  void SetUserPath(const std::wstring& path) const;

 private:
  void RemoveKeys() const;

  std::wstring name_;
  std::wstring sid_;
  std::wstring devKey_;
  std::wstring profile_;
  ScratchFolder scratch_;
  std::wstring previousDevKey_;
  bool hadDevKey_ = false;
};

}  // namespace testsupport
