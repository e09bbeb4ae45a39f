// stageduser.exe: stages the second identity of a staged boot in a Wine prefix (see
// staged_user.h) and the decoys of the account the host runs as (see decoys.h).
//
//   stageduser.exe create NAME [--sid SID] [--key KEY]
//   stageduser.exe logon NAME [--sid SID] [--key KEY]
//   stageduser.exe logoff NAME [--sid SID] [--key KEY]
//   stageduser.exe decoys [--program EXE]
//
// Exit codes: 0 done, 1 failed (one line on standard error says why), 2 bad command line.
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/module_library.h"
#include "common/staged_account.h"
#include "common/text_convert.h"
#include "stageduser/decoys.h"
#include "stageduser/staged_user.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr wchar_t kDecoyProgram[] = L"lumeradecoy.exe";
constexpr std::size_t kMaxKeyChars = 255;

constexpr char kHelp[] =
    "usage: stageduser create NAME [--sid SID] [--key KEY]\n"
    "       stageduser logon NAME [--sid SID] [--key KEY]\n"
    "       stageduser logoff NAME [--sid SID] [--key KEY]\n"
    "       stageduser decoys [--program EXE]\n"
    "\n"
    "Stages a second user in this Wine prefix, as Windows keeps an account, beside the account\n"
    "this program runs as.\n"
    "\n"
    "  create   ProfileList entry, profile folders under the profiles folder, the hive\n"
    "           HKEY_USERS\\SID (Run, StartupApproved, Environment) with HKEY_USERS\\SID_Classes\n"
    "           linked as Software\\Classes, and StagedUser / StagedUserSid in the development\n"
    "           key; running it again keeps what is there\n"
    "  logon    loads the hive saved in the profile (NTUSER.lumera) unless it is loaded; creates\n"
    "           the user when nothing was saved\n"
    "  logoff   saves HKEY_USERS\\SID and HKEY_USERS\\SID_Classes into the profile and unloads them\n"
    "  decoys   startup entries named Decoy... for the account this program runs as: a Run value,\n"
    "           a Startup-folder file with its StartupApproved value, a Store package and task,\n"
    "           and a Storage.json record\n"
    "\n"
    "  --sid SID      the user's SID, S-1-5-21-...; default: the development key's StagedUserSid\n"
    "                 when it stages NAME, else S-1-5-21-0-0-0-1001\n"
    "  --key KEY      the development key below HKLM; default: LUMERA_DEV_KEY, else\n"
    "                 Software\\Nexalon\\Lumera\\Development\n"
    "  --program EXE  the program the decoys copy; default: lumeradecoy.exe beside this program\n"
    "\n"
    "Exit codes: 0 done, 1 failed (the reason on standard error), 2 bad command line.\n";

void Print(FILE* stream, const std::wstring& line) {
  const std::string bytes = ky::WideToUtf8(line + L"\n");
  std::fwrite(bytes.data(), 1, bytes.size(), stream);
  std::fflush(stream);
}

int Usage(const std::wstring& problem) {
  Print(stderr, L"stageduser: " + problem + L" (stageduser --help shows the commands)");
  return kExitUsage;
}

int Fail(const std::wstring& reason) {
  Print(stderr, L"stageduser: " + reason);
  return kExitFailed;
}

struct Options {
  std::wstring command;
  std::wstring name;
  std::wstring sid;
  std::wstring key;
  std::wstring program;
};

// The problem with the command line, or empty when it parses.
std::wstring Parse(const std::vector<std::wstring>& args, Options& options) {
  if (args.size() < 2) return L"a command is needed";
  options.command = args[1];
  const bool userCommand = options.command == L"create" || options.command == L"logon" || options.command == L"logoff";
  if (!userCommand && options.command != L"decoys") return L"unknown command \"" + options.command + L"\"";
  std::size_t next = 2;
  if (userCommand) {
    if (args.size() < 3 || args[2].rfind(L"--", 0) == 0) return options.command + L" needs the user's NAME";
    options.name = args[2];
    if (!winestandins::IsAccountName(options.name)) return L"\"" + options.name + L"\" is not an account name";
    next = 3;
  }
  for (std::size_t i = next; i < args.size(); i += 2) {
    const std::wstring& option = args[i];
    if (i + 1 >= args.size()) return option + L" needs a value";
    const std::wstring& value = args[i + 1];
    if (userCommand && option == L"--sid") {
      if (!winestandins::IsAccountSid(value)) return L"\"" + value + L"\" is not an account's SID (S-1-5-21-...)";
      options.sid = value;
    } else if (userCommand && option == L"--key") {
      if (value.empty() || value.size() > kMaxKeyChars || value.front() == L'\\') return L"\"" + value + L"\" is not a key below HKLM";
      options.key = value;
    } else if (!userCommand && option == L"--program") {
      options.program = value;
    } else {
      return L"unknown option " + option + L" for " + options.command;
    }
  }
  return {};
}

int RunUserCommand(const Options& options) {
  winestandins::staging::StagedUser user;
  user.name = options.name;
  user.devKey = options.key.empty() ? winestandins::DevelopmentKey() : options.key;
  user.sid = winestandins::staging::SidFor(user.name, options.sid, user.devKey);
  winestandins::Account self;
  if (winestandins::ReadProcessAccount(self) && self.sid == user.sid) {
    return Fail(user.sid + L" is the account this program runs as; the staged user needs a SID of its own");
  }
  std::wstring report;
  std::wstring reason;
  bool done = false;
  if (options.command == L"create") done = winestandins::staging::CreateStagedUser(user, report, reason);
  else if (options.command == L"logon") done = winestandins::staging::LogonStagedUser(user, report, reason);
  else done = winestandins::staging::LogoffStagedUser(user, report, reason);
  if (!done) return Fail(reason);
  Print(stdout, report);
  return kExitOk;
}

int RunDecoys(const Options& options) {
  const std::wstring program = options.program.empty() ? ky::ModuleFolder(nullptr) + kDecoyProgram : options.program;
  std::vector<std::wstring> written;
  std::wstring reason;
  if (!winestandins::staging::WriteDecoys(program, written, reason)) return Fail(reason);
  for (const std::wstring& line : written) Print(stdout, L"decoy: " + line);
  return kExitOk;
}

}  // namespace

int main() {
  std::vector<std::wstring> args;
  if (!ky::ProcessArguments(args)) return Fail(L"the command line cannot be read");
  bool help = args.size() > 1 && args[1] == L"help";
  for (const std::wstring& arg : args) help |= arg == L"--help" || arg == L"-h" || arg == L"/?";
  if (help) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  Options options;
  if (const std::wstring problem = Parse(args, options); !problem.empty()) return Usage(problem);
  return options.command == L"decoys" ? RunDecoys(options) : RunUserCommand(options);
}
