// Names of the predefined registry roots, as they appear at the start of an item's location.
#pragma once

#include <windows.h>

#include <string>

namespace startup {

inline constexpr wchar_t kUnknownRootName[] = L"HKEY_UNKNOWN";

// The exact name of one of the five predefined roots; "HKEY_UNKNOWN" for any other key.
const wchar_t* RegistryRootName(HKEY root);
// The root with exactly that name (case-sensitive); null for any other name.
HKEY RegistryRootFromName(const std::wstring& name);

// Splits "ROOT\\subkey" at its first backslash and looks the root up. False, outputs
// untouched, when there is no backslash or the root name is unknown.
[[nodiscard]] bool SplitRegistryLocation(const std::wstring& location, HKEY& root, std::wstring& subkey);

}  // namespace startup
