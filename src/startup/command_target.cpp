#include "startup/command_target.h"

#include <windows.h>
#include <shellapi.h>
#include <shlwapi.h>

#include <algorithm>
#include <cwctype>

#include "common/unique_handle.h"
#include "users/user_profile.h"

namespace startup {
namespace {


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

std::shared_ptr<const velora::utils::CEnvironment> EnvironmentOf(const StartupItem& item) {
  using velora::utils::CEnvironment;
  if (item.isUser == 0) {
    static const std::shared_ptr<const CEnvironment> machine = CEnvironment::Machine();
    return machine;
  }
  const auto user = velora::utils::CUserProfile::Current();
  return user ? user->Environment() : CEnvironment::Unavailable();
}

bool ResolveCommandTarget(const std::wstring& command, std::wstring& target,
                          const velora::utils::CEnvironment& environment) {
  if (command.empty()) return false;  // CommandLineToArgvW would answer with this program's own path
  int count = 0;
  ky::unique_local argv(reinterpret_cast<HLOCAL>(::CommandLineToArgvW(command.c_str(), &count)));
  if (!argv || count <= 0) return false;
  auto* const* list = reinterpret_cast<LPWSTR*>(argv.get());
  std::vector<std::wstring> args(list, list + count);
  std::wstring result;
  if (!SelectCommandTarget(args, result)) return false;
  if (!environment.Available()) return false;
  // A bare name is found as the logon finds it: on the Path of the entry's own environment,
  // never the service's.
  if (result.find(L'\\') == std::wstring::npos) {
    std::wstring found;
    if (environment.FindOnPath(result, found) != 0) return false;
    result = std::move(found);
  }
  std::wstring expanded;
  if (environment.Expand(result, expanded) == 0) result = std::move(expanded);
  target = result;
  return true;
}

}  // namespace startup
