// The Explorer "StartupApproved" value of one startup entry (Windows 8 and later): 12 or more
// bytes whose first little-endian word says enabled (0, 2) or disabled (1, 3).
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "startup/startup_item.h"

namespace startup {

inline constexpr DWORD kApprovedValueMax = 128;
inline constexpr DWORD kApprovedValueNew = 12;  // length written when no value existed

// The state words of the two pairs 0/1 and 2/3.
inline constexpr std::uint32_t kWordEnabled = 0;
inline constexpr std::uint32_t kWordDisabled = 1;
inline constexpr std::uint32_t kWordEnabledAlt = 2;
inline constexpr std::uint32_t kWordDisabledAlt = 3;

inline bool IsDisabledWord(std::uint32_t word) { return word == kWordDisabled || word == kWordDisabledAlt; }
inline bool IsEnabledWord(std::uint32_t word) { return word == kWordEnabled || word == kWordEnabledAlt; }
// 0 becomes 1; anything else that is not already disabled becomes 3.
inline std::uint32_t DisabledWordFor(std::uint32_t word) { return word == kWordEnabled ? kWordDisabled : kWordDisabledAlt; }
// 1 becomes 0; anything else that is not already enabled becomes 2.
inline std::uint32_t EnabledWordFor(std::uint32_t word) { return word == kWordDisabled ? kWordEnabled : kWordEnabledAlt; }

// Maps a Run key path (root-relative) to its StartupApproved key path, lower-cased: the path
// must end in "run"; a "wow6432node\\" piece is removed and sends it to "...\\run32". False
// when the path does not end in "run".
[[nodiscard]] bool ApprovedRunSubkey(const std::wstring& runSubkey, std::wstring& approvedSubkey);

// The key holding the item's value: for kind 1 the StartupFolder key of the console user's
// hive under HKEY_USERS (isUser > 0; false when no user is known) or of HKLM, for kind 0 the Run
// or Run32 key derived from `location`. False for other kinds, an unknown root or a location
// that is not a Run key.
[[nodiscard]] bool GetItemRegKey(const StartupItem& item, StartupSourceKind kind, HKEY& root, std::wstring& subkey);

// Reads up to *length bytes of the value; the registry result, *length the bytes read.
[[nodiscard]] LSTATUS GetItemRegValue(HKEY root, const std::wstring& subkey, const std::wstring& name, BYTE* data,
                                      DWORD* length);
// Writes the bytes as REG_BINARY, creating the key when it cannot be opened; the registry result.
[[nodiscard]] LSTATUS SetItemRegValue(HKEY root, const std::wstring& subkey, const std::wstring& name,
                                      const BYTE* data, DWORD length);

class Win8StartupItem {
 public:
  // True when the value is missing or its word is 0 or 2.
  static bool IsEnabled(const StartupItem& item, StartupSourceKind kind);
  // 0 (also when already in that state), 31, or the registry error of the write.
  [[nodiscard]] static std::uint32_t Enable(const StartupItem& item, StartupSourceKind kind);
  [[nodiscard]] static std::uint32_t Disable(const StartupItem& item, StartupSourceKind kind);
};

}  // namespace startup
