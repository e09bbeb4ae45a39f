// Development switch for the console session's state, shared by the development host and
// the sibling libraries; the module never reads it. Wine always reports its one user as
// logged on and sends no session notifications, so a staged boot sets
//
//   HKLM\Software\Nexalon\Lumera\Development  ConsoleSession (REG_DWORD)
//     0 = nobody is logged on at the console, 1 = the Wine user is logged on
//
// from outside while the host runs, for instance with
//   wine reg add "HKLM\Software\Nexalon\Lumera\Development" /v ConsoleSession /t REG_DWORD /d 1 /f
// kyusers.dll then reports no console user while it is 0, and the host's "sessionchange"
// plug-in delivers a logon (5) when it turns 1 and a logoff (6) when it turns 0 again.
// Without the value, or outside Wine (ntdll.dll has no wine_get_version), nothing changes.
// A process whose environment names another value in LUMERA_DEV_CONSOLE_VALUE reads that one
// instead, and one whose environment names another key below HKLM in LUMERA_DEV_KEY reads
// every development value (this one and the staged identity of staged_identity.h) from that
// key, so a test can stage its own console without touching the processes beside it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace lumera::dev {

inline constexpr wchar_t kDevelopmentKey[] = L"Software\\Nexalon\\Lumera\\Development";
inline constexpr wchar_t kConsoleSessionValue[] = L"ConsoleSession";
inline constexpr wchar_t kValueOverride[] = L"LUMERA_DEV_CONSOLE_VALUE";
inline constexpr wchar_t kKeyOverride[] = L"LUMERA_DEV_KEY";

enum class ConsoleSession { kNotStaged, kLoggedOff, kLoggedOn };

inline bool RunningUnderWine() {
  HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// The development key below HKLM this process reads: LUMERA_DEV_KEY when set (with or
// without a leading "HKLM\\" or "HKEY_LOCAL_MACHINE\\"), else kDevelopmentKey.
inline std::wstring DevelopmentKeyPath() {
  wchar_t path[512] = {};
  const DWORD chars = ::GetEnvironmentVariableW(kKeyOverride, path, 512);
  if (chars == 0 || chars >= 512) return kDevelopmentKey;
  std::wstring key(path, chars);
  for (const wchar_t* root : {L"HKLM\\", L"HKEY_LOCAL_MACHINE\\"}) {
    const std::size_t n = std::char_traits<wchar_t>::length(root);
    if (key.size() > n && ::CompareStringOrdinal(key.c_str(), static_cast<int>(n), root, static_cast<int>(n), TRUE) ==
                              CSTR_EQUAL) {
      key.erase(0, n);
      break;
    }
  }
  return key;
}

// The staged state of the console session, read afresh on each call.
inline ConsoleSession StagedConsoleSession() {
  if (!RunningUnderWine()) return ConsoleSession::kNotStaged;
  wchar_t name[64] = {};
  const DWORD chars = ::GetEnvironmentVariableW(kValueOverride, name, 64);
  const wchar_t* valueName = chars > 0 && chars < 64 ? name : kConsoleSessionValue;
  DWORD value = 0;
  DWORD size = sizeof value;
  if (::RegGetValueW(HKEY_LOCAL_MACHINE, DevelopmentKeyPath().c_str(), valueName, RRF_RT_REG_DWORD, nullptr, &value,
                     &size) != ERROR_SUCCESS) {
    return ConsoleSession::kNotStaged;
  }
  return value == 0 ? ConsoleSession::kLoggedOff : ConsoleSession::kLoggedOn;
}

}  // namespace lumera::dev
