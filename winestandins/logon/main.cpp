// stagedlogon.exe: does in a Wine prefix what Windows' shell does when a user logs on at the
// console (see logon_entries.h): starts the Run values and Startup-folder files of the machine
// and of the user, in the user's environment, passing over the entries StartupApproved marks
// disabled from Windows 8 on. The user is the staged one when the development key names one
// (see staged_account.h), else the account this program runs as.
//
//   stagedlogon.exe [--help]
//
// Prints "user<TAB>NAME<TAB>SID<TAB>PROFILE", then one line per entry:
//   started<TAB>NAME<TAB>PID<TAB>SOURCE      skipped<TAB>NAME<TAB>REASON<TAB>SOURCE
//   failed<TAB>NAME<TAB>ERROR<TAB>SOURCE
// and a last line with the counts. Exit codes: 0 the logon ran (whatever each entry did), 1 no
// user or no environment for it, 2 bad command line.
#include <windows.h>
#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "common/com_ptr.h"
#include "common/command_line.h"
#include "common/staged_account.h"
#include "common/text_convert.h"
#include "common/unique_handle.h"
#include "common/windows_version.h"
#include "lumera_dev/staged_identity.h"
#include "logon/logon_entries.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr DWORD kExpandChars = 32768;
constexpr wchar_t kUserShellFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
constexpr wchar_t kProfileReference[] = L"%USERPROFILE%";

constexpr char kHelp[] =
    "usage: stagedlogon [--help]\n"
    "\n"
    "Starts what Windows' shell starts when a user logs on: the machine's Run values (HKLM and its\n"
    "Wow6432Node), the user's Run values (HKEY_USERS\\SID), the common Startup folder's files and\n"
    "the user's, in the user's environment with the profile as current folder. From Windows 8 on,\n"
    "entries whose StartupApproved value marks them disabled are passed over. The user is the\n"
    "development key's StagedUser (LUMERA_DEV_KEY names another key), else this program's own.\n"
    "\n"
    "Prints one line per entry: started NAME PID SOURCE, skipped NAME REASON SOURCE or failed\n"
    "NAME ERROR SOURCE, tab-separated.\n"
    "\n"
    "Exit codes: 0 the logon ran, 1 no user or no environment for it, 2 bad command line.\n";

using EnvironmentBlock = ky::unique_bound<void*, BOOL(WINAPI*)(LPVOID)>;

void Print(FILE* stream, const std::wstring& line) {
  const std::string bytes = ky::WideToUtf8(line + L"\n");
  std::fwrite(bytes.data(), 1, bytes.size(), stream);
  std::fflush(stream);
}

int Fail(const std::wstring& reason) {
  Print(stderr, L"stagedlogon: " + reason);
  return kExitFailed;
}



// The console user's environment block, as the shell gets it at logon.
bool UserEnvironment(EnvironmentBlock& block, std::wstring& reason) {
  ky::unique_handle token;
  ::SetLastError(ERROR_SUCCESS);
  if (!::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), token.put())) {
    reason = L"nobody is logged on at the console (WTSQueryUserToken error " + std::to_wstring(::GetLastError()) + L")";
    return false;
  }
  void* environment = nullptr;
  ::SetLastError(ERROR_SUCCESS);
  if (!::CreateEnvironmentBlock(&environment, token.get(), FALSE)) {
    reason = L"CreateEnvironmentBlock failed (error " + std::to_wstring(::GetLastError()) + L")";
    return false;
  }
  block.reset(environment, &::DestroyEnvironmentBlock);
  return true;
}

// The value of `name` in a block, or empty.
std::wstring BlockValue(const wchar_t* block, const std::wstring& name) {
  for (const wchar_t* entry = block; *entry != L'\0'; entry += wcslen(entry) + 1) {
    const std::wstring text = entry;
    const std::size_t equals = text.find(L'=', 1);
    if (equals == name.size() && ::CompareStringOrdinal(text.c_str(), static_cast<int>(equals), name.c_str(),
                                                        static_cast<int>(name.size()), TRUE) == CSTR_EQUAL) {
      return text.substr(equals + 1);
    }
  }
  return {};
}

// Makes the block this process's environment, as Explorer runs in the user's: ShellExecuteExW
// hands its programs the caller's environment and takes no block.
void AdoptEnvironment(const wchar_t* block) {
  std::vector<std::wstring> current;
  if (wchar_t* strings = ::GetEnvironmentStringsW()) {
    for (const wchar_t* entry = strings; *entry != L'\0'; entry += wcslen(entry) + 1) current.emplace_back(entry);
    ::FreeEnvironmentStringsW(strings);
  }
  for (const std::wstring& entry : current) {
    const std::size_t equals = entry.find(L'=', 1);
    // "=C:=C:\..." entries keep the current folder of each drive; they are not variables.
    if (entry[0] == L'=' || equals == std::wstring::npos) continue;
    // Wine's own settings (WINEPREFIX, WINEHOMEDIR, ...) belong to the process, not to an
    // account; without them Wine's shell cannot map its folders and opens no shortcut.
    if (::CompareStringOrdinal(entry.c_str(), static_cast<int>(std::min<std::size_t>(equals, 4)), L"WINE", 4, TRUE) ==
        CSTR_EQUAL) {
      continue;
    }
    ::SetEnvironmentVariableW(entry.substr(0, equals).c_str(), nullptr);
  }
  for (const wchar_t* entry = block; *entry != L'\0'; entry += wcslen(entry) + 1) {
    const std::wstring text = entry;
    const std::size_t equals = text.find(L'=', 1);
    if (text[0] == L'=' || equals == std::wstring::npos) continue;
    ::SetEnvironmentVariableW(text.substr(0, equals).c_str(), text.substr(equals + 1).c_str());
  }
}

std::wstring Expand(const std::wstring& text) {
  std::vector<wchar_t> buffer(kExpandChars, L'\0');
  const DWORD chars = ::ExpandEnvironmentStringsW(text.c_str(), buffer.data(), kExpandChars);
  return chars == 0 || chars > kExpandChars ? text : std::wstring(buffer.data());
}

// The user's Startup folder: the hive's User Shell Folders value, with %USERPROFILE% taken as
// the account's profile, else the profile's default one.
std::wstring UserStartupFolder(const winestandins::Account& account) {
  std::vector<wchar_t> buffer(kExpandChars, L'\0');
  DWORD bytes = (kExpandChars - 1) * sizeof(wchar_t);
  const std::wstring key = account.sid + L"\\" + kUserShellFolders;
  if (::RegGetValueW(HKEY_USERS, key.c_str(), L"Startup", RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr,
                     buffer.data(), &bytes) != ERROR_SUCCESS ||
      buffer[0] == L'\0') {
    return account.profile + L"\\" + winestandins::kStartupFolder;
  }
  std::wstring folder = buffer.data();
  const std::size_t reference = std::wstring(kProfileReference).size();
  if (::CompareStringOrdinal(folder.c_str(), static_cast<int>(std::min(reference, folder.size())), kProfileReference, -1,
                             TRUE) == CSTR_EQUAL) {
    folder = account.profile + folder.substr(reference);
  }
  return Expand(folder);
}

std::wstring CommonStartupFolder() {
  wchar_t path[MAX_PATH] = {};
  return SUCCEEDED(::SHGetFolderPathW(nullptr, CSIDL_COMMON_STARTUP, nullptr, SHGFP_TYPE_CURRENT, path)) ? path : L"";
}

// Starts a Run value's command line; its pid, or 0 with the last error set.
DWORD StartRunValue(const winestandins::logon::LogonEntry& entry, void* block, const std::wstring& profile) {
  std::wstring command = entry.expand ? Expand(entry.command) : entry.command;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  // Detached: the shell's programs have no console of the logon's.
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT | DETACHED_PROCESS,
                        block, profile.c_str(), &startup, &process)) {
    return 0;
  }
  const ky::unique_handle processHandle(process.hProcess);
  const ky::unique_handle threadHandle(process.hThread);
  return process.dwProcessId;
}

// What a shortcut starts: its target, arguments, working folder and window state; false when
// the file is not a shortcut the shell can read.
struct Shortcut {
  std::wstring target;
  std::wstring arguments;
  std::wstring folder;
  int show = SW_SHOWNORMAL;
};

bool ReadShortcut(const std::wstring& path, Shortcut& shortcut) {
  const std::size_t dot = path.find_last_of(L'.');
  if (dot == std::wstring::npos || ::CompareStringOrdinal(path.c_str() + dot, -1, L".lnk", -1, TRUE) != CSTR_EQUAL) {
    return false;
  }
  ky::com_ptr<IShellLinkW> link;
  ky::com_ptr<IPersistFile> file;
  if (FAILED(::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW, link.put_void())) ||
      FAILED(link.query(IID_IPersistFile, file)) || FAILED(file->Load(path.c_str(), STGM_READ))) {
    return false;
  }
  std::vector<wchar_t> text(kExpandChars, L'\0');
  if (link->GetPath(text.data(), static_cast<int>(text.size()), nullptr, 0) != S_OK || text[0] == L'\0') return false;
  shortcut.target = text.data();
  text[0] = L'\0';
  if (SUCCEEDED(link->GetArguments(text.data(), static_cast<int>(text.size())))) shortcut.arguments = text.data();
  text[0] = L'\0';
  if (SUCCEEDED(link->GetWorkingDirectory(text.data(), static_cast<int>(text.size())))) shortcut.folder = text.data();
  int show = SW_SHOWNORMAL;
  if (SUCCEEDED(link->GetShowCmd(&show))) shortcut.show = show;
  return true;
}

// Opens a Startup-folder file the way Explorer opens it: a shortcut starts its target with its
// arguments in its working folder (the profile when it names none), anything else is opened by
// its type. Its pid, 0 with no error when the shell gave no process, or 0 with the last error set.
DWORD StartFile(const winestandins::logon::LogonEntry& entry, const std::wstring& profile) {
  Shortcut shortcut;
  const bool isShortcut = ReadShortcut(entry.command, shortcut);
  SHELLEXECUTEINFOW info{};
  info.cbSize = sizeof info;
  info.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC;
  info.lpFile = isShortcut ? shortcut.target.c_str() : entry.command.c_str();
  info.lpParameters = isShortcut && !shortcut.arguments.empty() ? shortcut.arguments.c_str() : nullptr;
  info.lpDirectory = isShortcut && !shortcut.folder.empty() ? shortcut.folder.c_str() : profile.c_str();
  info.nShow = isShortcut ? shortcut.show : SW_SHOWNORMAL;
  ::SetLastError(ERROR_SUCCESS);
  if (!::ShellExecuteExW(&info)) {
    if (::GetLastError() == ERROR_SUCCESS) ::SetLastError(ERROR_GEN_FAILURE);
    return 0;
  }
  ::SetLastError(ERROR_SUCCESS);
  const ky::unique_handle process(info.hProcess);
  return process ? ::GetProcessId(process.get()) : 0;
}

struct ComApartment {
  ComApartment() : result(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE)) {}
  ~ComApartment() {
    if (SUCCEEDED(result)) ::CoUninitialize();
  }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
  HRESULT result;
};

}  // namespace

int main() {
  std::vector<std::wstring> args;
  if (!ky::ProcessArguments(args)) return Fail(L"the command line cannot be read");
  if (args.size() == 2 && (args[1] == L"--help" || args[1] == L"-h" || args[1] == L"/?" || args[1] == L"help")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (args.size() > 1) {
    Print(stderr, L"stagedlogon: unknown argument \"" + args[1] + L"\" (stagedlogon --help shows the usage)");
    return kExitUsage;
  }
  // WTSQueryUserToken and CreateEnvironmentBlock below then answer for the staged user.
  (void)lumera::dev::InstallStagedIdentity(::GetModuleHandleW(nullptr));
  winestandins::Account account;
  if (!winestandins::ReadLogonAccount(account)) return Fail(L"neither a staged user nor this program's account can be read");
  if (account.profile.empty()) return Fail(L"no ProfileList entry with a profile folder for " + account.sid);
  EnvironmentBlock block;
  std::wstring reason;
  if (!UserEnvironment(block, reason)) return Fail(reason);
  const auto* strings = static_cast<const wchar_t*>(block.get());
  if (const std::wstring profile = BlockValue(strings, L"USERPROFILE");
      ::CompareStringOrdinal(profile.c_str(), -1, account.profile.c_str(), -1, TRUE) != CSTR_EQUAL) {
    Print(stderr, L"stagedlogon: the environment names USERPROFILE=" + profile + L", not " + account.profile +
                      L": the identity stand-ins are not installed");
  }
  AdoptEnvironment(strings);
  const ComApartment com;

  Print(stdout, L"user\t" + account.name + L"\t" + account.sid + L"\t" + account.profile);
  const bool honourApproval = ky::IsWindows8OrGreater();
  int started = 0, skipped = 0, failed = 0;
  for (const auto& source : winestandins::logon::LogonSources(account.sid, CommonStartupFolder(), UserStartupFolder(account))) {
    std::vector<winestandins::logon::LogonEntry> entries;
    winestandins::logon::CollectEntries(source, entries);
    for (const auto& entry : entries) {
      if (honourApproval && winestandins::logon::DisabledByApproval(entry)) {
        Print(stdout, L"skipped\t" + entry.name + L"\tdisabled in " + entry.approval.Text() + L"\t" + entry.source);
        ++skipped;
        continue;
      }
      const DWORD pid = entry.kind == winestandins::logon::EntryKind::kRunValue
                            ? StartRunValue(entry, block.get(), account.profile)
                            : StartFile(entry, account.profile);
      const DWORD error = ::GetLastError();
      if (pid == 0 && error != ERROR_SUCCESS) {
        Print(stdout, L"failed\t" + entry.name + L"\terror " + std::to_wstring(error) + L"\t" + entry.source);
        ++failed;
        continue;
      }
      Print(stdout, L"started\t" + entry.name + L"\t" + (pid != 0 ? std::to_wstring(pid) : L"-") + L"\t" + entry.source);
      ++started;
    }
  }
  Print(stdout, L"logon of " + account.name + L" (" + account.sid + L"): " + std::to_wstring(started) + L" started, " +
                    std::to_wstring(skipped) + L" skipped, " + std::to_wstring(failed) + L" failed");
  return kExitOk;
}
