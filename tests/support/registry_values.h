// The user's startup keys as tests reach them, and the registry reads and writes tests repeat:
// a text or number value set, a value's presence, a binary value's bytes.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace testsupport {

// Writes a string value, creating the key; the registry's result.
inline LSTATUS SetRegText(HKEY root, const std::wstring& key, const std::wstring& name, const std::wstring& text,
                          DWORD type = REG_SZ) {
  return ::RegSetKeyValueW(root, key.c_str(), name.c_str(), type, text.c_str(),
                           static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

inline LSTATUS SetRegDword(HKEY root, const std::wstring& key, const std::wstring& name, DWORD value) {
  return ::RegSetKeyValueW(root, key.c_str(), name.c_str(), REG_DWORD, &value, sizeof(value));
}

inline bool HasRegValue(HKEY root, const std::wstring& key, const std::wstring& name) {
  return ::RegGetValueW(root, key.c_str(), name.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}

// A REG_BINARY value's bytes; empty when it is missing.
inline std::vector<BYTE> RegBinary(HKEY root, const std::wstring& key, const std::wstring& name) {
  std::vector<BYTE> bytes(256);
  DWORD length = static_cast<DWORD>(bytes.size());
  if (::RegGetValueW(root, key.c_str(), name.c_str(), RRF_RT_REG_BINARY, nullptr, bytes.data(), &length) !=
      ERROR_SUCCESS) {
    return {};
  }
  bytes.resize(length);
  return bytes;
}

// First byte of a StartupApproved value (even enabled, odd disabled); -1 when it is missing.
inline int ApprovedFirstByte(HKEY root, const std::wstring& key, const std::wstring& name) {
  const std::vector<BYTE> bytes = RegBinary(root, key, name);
  return bytes.empty() ? -1 : bytes[0];
}

// Written out here rather than taken from the module, so that a wrong key in the module fails.
inline constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
inline constexpr wchar_t kApprovedRun[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\Run";
inline constexpr wchar_t kApprovedFolder[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";

inline bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

}  // namespace testsupport
