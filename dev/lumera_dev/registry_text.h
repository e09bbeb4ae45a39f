// Reading text values of the registry for the development stand-ins, which run inside other
// programs and so report nothing: a value that cannot be read is simply empty.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace lumera::dev {

struct RegistryText {
  std::wstring name;
  DWORD type = REG_SZ;  // REG_SZ or REG_EXPAND_SZ
  std::wstring text;    // as stored, never expanded
};

// The REG_SZ or REG_EXPAND_SZ value `value` of `root`\`path`, unexpanded; empty when the key,
// the value or a text of that type is missing.
std::wstring ReadRegistryText(HKEY root, const std::wstring& path, const wchar_t* value);

// Every REG_SZ and REG_EXPAND_SZ value of `root`\`path`, in the key's order; empty when the key
// is missing.
std::vector<RegistryText> ReadRegistryTexts(HKEY root, const std::wstring& path);

// The computer's NetBIOS name; empty when it cannot be read.
std::wstring ComputerName();

}  // namespace lumera::dev
