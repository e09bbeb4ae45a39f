#include "startup/command_target.h"

#include <windows.h>
#include <shellapi.h>
#include <shlwapi.h>

#include <algorithm>
#include <cwctype>

#include "common/unique_handle.h"

namespace startup {
namespace {

constexpr std::size_t kSearchChars = MAX_PATH;
constexpr DWORD kExpandChars = 32767;

std::wstring Lower(std::wstring text) {
  std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
  return text;
}

bool NamesProgram(const std::wstring& arg) {
  const std::wstring lower = Lower(arg);
  return lower.find(L".exe") != std::wstring::npos || lower.find(L".bat") != std::wstring::npos;
}

// Text before the first comma; true when there was one.
bool CutAtComma(std::wstring& text) {
  const std::size_t comma = text.find(L',');
  if (comma == std::wstring::npos) return false;
  text.resize(comma);
  return true;
}

bool SelectDll(const std::vector<std::wstring>& args, std::wstring& target) {
  if (args.size() < 2) return false;
  std::wstring dll = args[1];
  if (!dll.empty() && dll.front() == L'"') {
    target = dll;
    return true;
  }
  // The DLL ends where its entry point begins: at the comma, possibly several blanks later.
  for (std::size_t next = 2; !CutAtComma(dll) && next < args.size(); ++next) dll += L' ' + args[next];
  target = dll;
  return true;
}

}  // namespace

bool SelectCommandTarget(const std::vector<std::wstring>& args, std::wstring& target) {
  if (args.empty()) return false;
  const std::wstring first = Lower(args[0]);
  if (first == L"rundll32.exe" || first == L"rundll.exe") return SelectDll(args, target);
  std::wstring program = args[0];
  for (std::size_t next = 1; !NamesProgram(program); ++next) {
    if (next >= args.size()) return false;
    program += L' ' + args[next];
  }
  target = program;
  return true;
}

bool ResolveCommandTarget(const std::wstring& command, std::wstring& target) {
  if (command.empty()) return false;  // CommandLineToArgvW would answer with this program's own path
  int count = 0;
  ky::unique_local argv(reinterpret_cast<HLOCAL>(::CommandLineToArgvW(command.c_str(), &count)));
  if (!argv || count <= 0) return false;
  auto* const* list = reinterpret_cast<LPWSTR*>(argv.get());
  std::vector<std::wstring> args(list, list + count);
  std::wstring result;
  if (!SelectCommandTarget(args, result)) return false;
  if (result.find(L'\\') == std::wstring::npos) {
    if (result.size() >= kSearchChars) return false;
    std::vector<wchar_t> found(kSearchChars, L'\0');
    std::copy(result.begin(), result.end(), found.begin());
    if (!::PathFindOnPathW(found.data(), nullptr)) return false;
    result = found.data();
  }
  std::vector<wchar_t> expanded(kExpandChars, L'\0');
  const DWORD chars = ::ExpandEnvironmentStringsW(result.c_str(), expanded.data(), kExpandChars);
  if (chars != 0 && chars <= kExpandChars) result = expanded.data();
  target = result;
  return true;
}

}  // namespace startup
