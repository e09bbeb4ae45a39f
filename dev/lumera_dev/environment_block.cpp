#include "lumera_dev/environment_block.h"

#include <iterator>

#include "lumera_dev/registry_text.h"

namespace lumera::dev {
namespace {

constexpr wchar_t kSessionEnvironmentKey[] = L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";
constexpr wchar_t kWindowsNtKey[] = L"Software\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t kWindowsKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion";

// Variables whose user value is appended to the machine's rather than replacing it.
constexpr const wchar_t* kListVariables[] = {L"Path", L"LibPath", L"Os2LibPath"};

bool SameName(const std::wstring& a, const wchar_t* b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b, -1, TRUE) == CSTR_EQUAL;
}

void SetIfPresent(Variables& variables, const wchar_t* name, const std::wstring& value) {
  if (!value.empty()) variables[name] = value;
}

// Plain values first, so that expandable ones may refer to them, as Windows reads them.
void ApplyRegistryValues(Variables& variables, HKEY root, const std::wstring& path, bool appendLists) {
  const std::vector<RegistryText> texts = ReadRegistryTexts(root, path);
  for (const DWORD pass : {static_cast<DWORD>(REG_SZ), static_cast<DWORD>(REG_EXPAND_SZ)}) {
    for (const RegistryText& value : texts) {
      if (value.type != pass || value.name.empty()) continue;
      const std::wstring text = pass == REG_EXPAND_SZ ? ExpandVariables(value.text, variables) : value.text;
      bool isList = false;
      for (const wchar_t* list : kListVariables) isList = isList || SameName(value.name, list);
      auto existing = variables.find(value.name);
      if (appendLists && isList && existing != variables.end() && !existing->second.empty()) {
        if (existing->second.back() != L';') existing->second += L';';
        existing->second += text;
      } else {
        variables[value.name] = text;
      }
    }
  }
}

std::wstring WindowsFolder() {
  std::wstring root = ReadRegistryText(HKEY_LOCAL_MACHINE, kWindowsNtKey, L"SystemRoot");
  if (!root.empty()) return root;
  wchar_t folder[MAX_PATH] = {};
  const UINT chars = ::GetSystemWindowsDirectoryW(folder, static_cast<UINT>(std::size(folder)));
  return chars > 0 && chars < std::size(folder) ? std::wstring(folder, chars) : std::wstring(L"C:\\Windows");
}

}  // namespace

bool VariableNameLess::operator()(const std::wstring& a, const std::wstring& b) const {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_LESS_THAN;
}

std::wstring ExpandVariables(const std::wstring& text, const Variables& variables) {
  std::wstring out;
  std::size_t i = 0;
  while (i < text.size()) {
    if (text[i] != L'%') {
      out += text[i++];
      continue;
    }
    const std::size_t close = text.find(L'%', i + 1);
    if (close == std::wstring::npos) {
      out.append(text, i, std::wstring::npos);
      break;
    }
    const auto found = close > i + 1 ? variables.find(text.substr(i + 1, close - i - 1)) : variables.end();
    if (found != variables.end()) {
      out += found->second;
      i = close + 1;
    } else {
      // An unknown name stays; its closing '%' may open the next reference.
      out.append(text, i, close - i);
      i = close;
    }
  }
  return out;
}

std::vector<wchar_t> ToEnvironmentBlock(const Variables& variables) {
  std::vector<wchar_t> block;
  for (const auto& [name, value] : variables) {
    block.insert(block.end(), name.begin(), name.end());
    block.push_back(L'=');
    block.insert(block.end(), value.begin(), value.end());
    block.push_back(L'\0');
  }
  if (block.empty()) block.push_back(L'\0');
  block.push_back(L'\0');
  return block;
}

Variables FromEnvironmentBlock(const wchar_t* block) {
  Variables variables;
  if (block == nullptr) return variables;
  for (const wchar_t* entry = block; *entry != L'\0'; entry += std::char_traits<wchar_t>::length(entry) + 1) {
    const std::wstring text(entry);
    // Search from the second character: a hidden entry's name begins with '='.
    const std::size_t equals = text.find(L'=', 1);
    if (equals == std::wstring::npos) {
      variables[text] = std::wstring();
    } else {
      variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
  }
  return variables;
}

Variables MachineVariables() {
  Variables variables;
  const std::wstring root = WindowsFolder();
  variables[L"SystemRoot"] = root;
  if (root.size() >= 2 && root[1] == L':') variables[L"SystemDrive"] = root.substr(0, 2);
  const auto expanded = [&variables](HKEY key, const wchar_t* path, const wchar_t* value) {
    return ExpandVariables(ReadRegistryText(key, path, value), variables);
  };
  const std::wstring programData = expanded(HKEY_LOCAL_MACHINE, kProfileListKey, L"ProgramData");
  SetIfPresent(variables, L"ProgramData", programData);
  SetIfPresent(variables, L"ALLUSERSPROFILE", programData);
  SetIfPresent(variables, L"PUBLIC", expanded(HKEY_LOCAL_MACHINE, kProfileListKey, L"Public"));
  const std::wstring programFiles = expanded(HKEY_LOCAL_MACHINE, kWindowsKey, L"ProgramFilesDir");
  const std::wstring commonFiles = expanded(HKEY_LOCAL_MACHINE, kWindowsKey, L"CommonFilesDir");
  SetIfPresent(variables, L"ProgramFiles", programFiles);
  SetIfPresent(variables, L"CommonProgramFiles", commonFiles);
  SetIfPresent(variables, L"ProgramFiles(x86)", expanded(HKEY_LOCAL_MACHINE, kWindowsKey, L"ProgramFilesDir (x86)"));
  SetIfPresent(variables, L"CommonProgramFiles(x86)",
               expanded(HKEY_LOCAL_MACHINE, kWindowsKey, L"CommonFilesDir (x86)"));
  // Wine keeps no ProgramW6432Dir; for a 64-bit reader it is the native Program Files folder.
  const std::wstring programW6432 = expanded(HKEY_LOCAL_MACHINE, kWindowsKey, L"ProgramW6432Dir");
  const std::wstring commonW6432 = expanded(HKEY_LOCAL_MACHINE, kWindowsKey, L"CommonW6432Dir");
  SetIfPresent(variables, L"ProgramW6432", programW6432.empty() ? programFiles : programW6432);
  SetIfPresent(variables, L"CommonProgramW6432", commonW6432.empty() ? commonFiles : commonW6432);
  SetIfPresent(variables, L"COMPUTERNAME", ComputerName());
  ApplyRegistryValues(variables, HKEY_LOCAL_MACHINE, kSessionEnvironmentKey, false);
  return variables;
}

Variables UserVariables(const StagedIdentity& identity, Variables base) {
  Variables variables = std::move(base);
  const std::wstring& profile = identity.profile;
  variables[L"USERPROFILE"] = profile;
  if (profile.size() >= 2 && profile[1] == L':') {
    variables[L"HOMEDRIVE"] = profile.substr(0, 2);
    variables[L"HOMEPATH"] = profile.size() > 2 ? profile.substr(2) : std::wstring(L"\\");
  } else {
    variables[L"HOMEPATH"] = profile;
  }
  variables[L"APPDATA"] = profile + L"\\AppData\\Roaming";
  variables[L"LOCALAPPDATA"] = profile + L"\\AppData\\Local";
  variables[L"TEMP"] = profile + L"\\AppData\\Local\\Temp";
  variables[L"TMP"] = profile + L"\\AppData\\Local\\Temp";
  variables[L"USERNAME"] = identity.user;
  SetIfPresent(variables, L"USERDOMAIN", ComputerName());
  ApplyRegistryValues(variables, HKEY_USERS, identity.sid + L"\\Environment", true);
  return variables;
}

}  // namespace lumera::dev
