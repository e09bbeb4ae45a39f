// The staged logon: stagedlogon.exe starts the staged user's Run values and Startup-folder files
// and, from Windows 8 on, passes over those StartupApproved marks disabled (started again once
// enabled; on Windows 7 the values mean nothing); stageduser.exe's logon refuses a garbled saved
// hive and loads nothing of it. Each test stages a user, SID and development key of its own.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/staged_account.h"
#include "common/unique_handle.h"
#include "logon/logon_entries.h"
#include "picojson.h"
#include "stageduser/hive_registry.h"
#include "support/programs.h"
#include "support/registry_values.h"
#include "support/scoped_environment.h"
#include "support/scratch_folder.h"

namespace {

namespace logon = winestandins::logon;
using testsupport::Narrow;

constexpr DWORD kToolTimeoutMs = 60000;
constexpr DWORD kProgramEndMs = 20000;
constexpr DWORD kDisabled = 3, kDisabledAlt = 1, kEnabled = 2, kEnabledAlt = 0;

std::vector<BYTE> Approval(std::uint32_t word, std::size_t size = 12) {
  std::vector<BYTE> value(size, 0);
  std::memcpy(value.data(), &word, std::min(size, sizeof word));
  return value;
}

TEST(StartupApproved, DisablesOnlyByAFirstWordOfOneOrThree) {
  const struct {
    std::vector<BYTE> value;
    bool disables;
  } cases[] = {
      {Approval(1), true},       {Approval(3), true},          {Approval(1, 4), true},
      {Approval(0), false},      {Approval(2), false},         {Approval(6), false},
      {Approval(0x0101), false}, {Approval(1, 3), false},      {{}, false},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(logon::ApprovalDisables(test.value.data(), test.value.size()), test.disables)
        << test.value.size() << " bytes, first " << (test.value.empty() ? -1 : test.value[0]);
  }
  EXPECT_FALSE(logon::ApprovalDisables(nullptr, 12));
}

TEST(StartupApproved, EachSourceHasTheKeyWindowsKeepsItsValuesIn) {
  const std::wstring approved = logon::kApprovedSubkey;
  const auto sources = logon::LogonSources(L"S-1-5-21-1-2-3-4", L"C:\\common", L"C:\\user");
  ASSERT_EQ(sources.size(), 5u);
  EXPECT_EQ(sources[0].run.Text(), L"HKLM\\" + std::wstring(logon::kRunSubkey));
  EXPECT_EQ(sources[0].approval.Text(), L"HKLM\\" + approved + L"\\Run");
  EXPECT_EQ(sources[1].run.Text(), L"HKLM\\" + std::wstring(logon::kRunWowSubkey));
  EXPECT_EQ(sources[1].approval.Text(), L"HKLM\\" + approved + L"\\Run32");
  EXPECT_EQ(sources[2].run.Text(), L"HKEY_USERS\\S-1-5-21-1-2-3-4\\" + std::wstring(logon::kRunSubkey));
  EXPECT_EQ(sources[2].approval.Text(), L"HKEY_USERS\\S-1-5-21-1-2-3-4\\" + approved + L"\\Run");
  EXPECT_EQ(sources[3].folder, L"C:\\common");
  EXPECT_EQ(sources[3].approval.Text(), L"HKLM\\" + approved + L"\\StartupFolder");
  EXPECT_EQ(sources[4].folder, L"C:\\user");
  EXPECT_EQ(sources[4].approval.Text(), L"HKEY_USERS\\S-1-5-21-1-2-3-4\\" + approved + L"\\StartupFolder");
}

// A Run key with its StartupApproved key below a scratch key of the test's own, removed after.
struct ScratchKey {
  ~ScratchKey() { ::RegDeleteTreeW(HKEY_CURRENT_USER, top.c_str()); }
  const std::wstring top = L"Software\\LumeraStagedLogonTest" + std::to_wstring(::GetCurrentProcessId());
};

void Approve(const logon::RegistryPlace& key, const wchar_t* name, std::uint32_t word) {
  const std::vector<BYTE> value = Approval(word);
  ASSERT_EQ(::RegSetKeyValueW(key.root, key.subkey.c_str(), name, REG_BINARY, value.data(), static_cast<DWORD>(value.size())),
            ERROR_SUCCESS);
}

TEST(LogonEntries, TakeStringRunValuesAndFilesAndReadEachOnesApproval) {
  const ScratchKey scratch;
  testsupport::ScratchFolder folder;
  logon::LogonSource run;
  run.run = {HKEY_CURRENT_USER, scratch.top + L"\\Run"};
  run.approval = {HKEY_CURRENT_USER, scratch.top + L"\\Approved"};
  logon::LogonSource files;
  files.kind = logon::EntryKind::kStartupFile;
  files.folder = folder.path().substr(0, folder.path().size() - 1);
  files.approval = {HKEY_CURRENT_USER, scratch.top + L"\\ApprovedFolder"};
  ASSERT_EQ(testsupport::SetRegText(HKEY_CURRENT_USER, run.run.subkey, L"Plain", L"plain.exe /a"), ERROR_SUCCESS);
  ASSERT_EQ(testsupport::SetRegText(HKEY_CURRENT_USER, run.run.subkey, L"Expanding", L"%WINDIR%\\x.exe", REG_EXPAND_SZ),
            ERROR_SUCCESS);
  ASSERT_EQ(testsupport::SetRegDword(HKEY_CURRENT_USER, run.run.subkey, L"NotText", 1), ERROR_SUCCESS);
  Approve(run.approval, L"Plain", kDisabled);
  Approve(run.approval, L"Expanding", kEnabled);
  testsupport::WriteFileBytes(folder.file(L"app.exe"));
  testsupport::WriteFileBytes(folder.file(L"desktop.ini"));
  ASSERT_TRUE(::CreateDirectoryW(folder.file(L"sub").c_str(), nullptr));
  Approve(files.approval, L"app.exe", kDisabledAlt);

  std::vector<logon::LogonEntry> entries;
  logon::CollectEntries(run, entries);
  logon::CollectEntries(files, entries);
  ASSERT_EQ(entries.size(), 3u) << "two string values and one file; no DWORD, desktop.ini or folder";
  std::map<std::wstring, const logon::LogonEntry*> byName;
  for (const auto& entry : entries) byName[entry.name] = &entry;
  ASSERT_TRUE(byName.count(L"Plain") && byName.count(L"Expanding") && byName.count(L"app.exe"));
  EXPECT_EQ(byName[L"Plain"]->command, L"plain.exe /a");
  EXPECT_FALSE(byName[L"Plain"]->expand);
  EXPECT_TRUE(byName[L"Expanding"]->expand) << "REG_EXPAND_SZ is expanded in the user's environment when started";
  EXPECT_EQ(byName[L"app.exe"]->command, folder.file(L"app.exe"));
  EXPECT_TRUE(logon::DisabledByApproval(*byName[L"Plain"]));
  EXPECT_FALSE(logon::DisabledByApproval(*byName[L"Expanding"]));
  EXPECT_TRUE(logon::DisabledByApproval(*byName[L"app.exe"]));
  ASSERT_EQ(::RegDeleteKeyValueW(HKEY_CURRENT_USER, run.approval.subkey.c_str(), L"Plain"), ERROR_SUCCESS);
  EXPECT_FALSE(logon::DisabledByApproval(*byName[L"Plain"])) << "without a value the entry starts";
}

// What stagedlogon.exe printed, by entry name: the fields after the name.
using LogonOutput = std::map<std::string, std::vector<std::string>>;

LogonOutput Parse(const std::string& output) {
  LogonOutput lines;
  std::istringstream text(output);
  for (std::string line; std::getline(text, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    if (fields.size() >= 3) lines[fields[1]] = {fields[0], fields[2]};
  }
  return lines;
}

// One of the staging tools in build/bin/winestandins.
testsupport::ProgramRun Tool(const wchar_t* exe, const std::wstring& arguments) {
  return testsupport::RunProgram(testsupport::Quoted(testsupport::BinFolder() / L"winestandins" / exe) + L" " + arguments,
                                 kToolTimeoutMs);
}

// A staged user of the test's own, created by stageduser.exe with a development key of its
// own, and everything it made removed afterwards.
class StagedLogon : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto run = Tool(L"stageduser.exe", L"create " + name_ + L" --sid " + sid_ + L" --key " + devKey_);
    ASSERT_EQ(run.exitCode, 0u) << run.output;
    ASSERT_EQ(testsupport::SetRegDword(HKEY_LOCAL_MACHINE, devKey_, L"ConsoleSession", 1), ERROR_SUCCESS);
    ASSERT_TRUE(winestandins::ProfileOfSid(sid_, profile_));
    startup_ = profile_ + L"\\" + winestandins::kStartupFolder;
  }
  void TearDown() override {
    EXPECT_EQ(winestandins::hive::UnloadHive(sid_), 0u);
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(winestandins::kProfileListKey) + L"\\" + sid_).c_str());
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, devKey_.c_str());
    std::error_code ignored;
    if (!profile_.empty()) std::filesystem::remove_all(std::filesystem::path(profile_), ignored);
  }

  // stagedlogon.exe for this test's user: its environment names the test's development key.
  LogonOutput Logon() const {
    const testsupport::ScopedEnvironment user(winestandins::kDevKeyOverride, devKey_);
    const auto run = Tool(L"stagedlogon.exe", L"");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    LogonOutput lines = Parse(run.output);
    EXPECT_EQ(lines[Narrow(name_)], std::vector<std::string>({"user", Narrow(sid_)})) << run.output;
    return lines;
  }

  std::wstring Workload(const std::wstring& report) const {
    return testsupport::Quoted(testsupport::BinFolder() / L"workload.exe") +
           L" --busy-ms 0 --write-mb 0 --quiet-ms 0 --folder " + testsupport::Quoted(Folder()) + L" --report " +
           testsupport::Quoted(folder_.file(report));
  }
  void SetRunValue(const std::wstring& report) const {
    ASSERT_EQ(testsupport::SetRegText(HKEY_USERS, sid_ + L"\\" + logon::kRunSubkey, L"LumeraProbeRun", Workload(report)),
              ERROR_SUCCESS);
  }
  void SetShortcut(const std::wstring& report) const {
    const std::wstring command = Workload(report);
    ASSERT_HRESULT_SUCCEEDED(testsupport::SaveShortcut(startup_ + L"\\LumeraProbe.lnk",
                                                       (testsupport::BinFolder() / L"workload.exe").wstring(),
                                                       command.substr(command.find(L" --busy-ms") + 1)));
  }
  // startupctl.exe acting for this test's user, as an administrator runs it for the console user.
  testsupport::ProgramRun Startupctl(const std::wstring& arguments) const {
    const testsupport::ScopedEnvironment user(winestandins::kDevKeyOverride, devKey_);
    return testsupport::RunBinProgram(L"startupctl.exe", arguments);
  }

  // The program stagedlogon says it started ended and wrote `report` with its own pid.
  void ExpectStartedAndReported(const LogonOutput& lines, const char* name, const std::wstring& report) const {
    const auto found = lines.find(name);
    ASSERT_TRUE(found != lines.end() && found->second[0] == "started")
        << name << " was not started: " << (found == lines.end() ? "not listed" : found->second[0] + " " + found->second[1]);
    const DWORD pid = std::stoul(found->second[1]);
    if (ky::unique_handle process{::OpenProcess(SYNCHRONIZE, FALSE, pid)}) {
      ASSERT_EQ(::WaitForSingleObject(process.get(), kProgramEndMs), WAIT_OBJECT_0) << name << " did not end";
    }
    picojson::value written;
    ASSERT_EQ(picojson::parse(written, testsupport::ReadFileBytes(folder_.file(report))), "") << name << " wrote no report";
    EXPECT_EQ(written.get("pid").to_str(), std::to_string(pid)) << name << ": the program that reported is the one started";
  }

  // The scratch folder without its trailing backslash, which would escape a closing quote.
  std::wstring Folder() const { return folder_.path().substr(0, folder_.path().size() - 1); }

  const std::wstring suffix_ = std::to_wstring(::GetCurrentProcessId());
  const std::wstring name_ = L"lmtest" + suffix_;
  const std::wstring sid_ = L"S-1-5-21-7-7-8-" + suffix_;
  const std::wstring devKey_ = L"Software\\LumeraStagedLogonTest" + suffix_;
  std::wstring profile_;
  std::wstring startup_;
  testsupport::ScratchFolder folder_;
};

// Disabled through startupctl.exe, as a person does it, the entries stay out of the next logon:
// from Windows 8 on StartupApproved marks them, below it they are taken out; enabled again, they
// start.
TEST_F(StagedLogon, PassesOverWhatStartupctlDisabledAndStartsItOnceEnabledAgain) {
  SetRunValue(L"run.json");
  SetShortcut(L"link.json");
  const auto switchBoth = [&](const std::wstring& verb) {
    for (const wchar_t* name : {L"LumeraProbeRun", L"LumeraProbe.lnk"}) {
      const auto run = Startupctl(verb + name);
      ASSERT_EQ(run.exitCode, 0u) << run.output;
    }
  };
  ASSERT_NO_FATAL_FAILURE(switchBoth(L"disable "));
  const LogonOutput first = Logon();
  for (const char* name : {"LumeraProbeRun", "LumeraProbe.lnk"}) {
    const auto found = first.find(name);
    if (testsupport::WineFlavourIsWin10()) {
      ASSERT_TRUE(found != first.end()) << name << " not listed";
      EXPECT_EQ(found->second[0], "skipped") << name;
      EXPECT_NE(found->second[1].find("StartupApproved"), std::string::npos) << found->second[1];
    } else {
      EXPECT_TRUE(found == first.end()) << name << " is still there below Windows 8: " << found->second[0];
    }
  }
  EXPECT_TRUE(testsupport::ReadFileBytes(folder_.file(L"run.json")).empty()) << "a disabled Run entry ran";
  EXPECT_TRUE(testsupport::ReadFileBytes(folder_.file(L"link.json")).empty()) << "a disabled shortcut ran";

  ASSERT_NO_FATAL_FAILURE(switchBoth(L"enable "));
  const LogonOutput second = Logon();
  ExpectStartedAndReported(second, "LumeraProbeRun", L"run.json");
  ExpectStartedAndReported(second, "LumeraProbe.lnk", L"link.json");
}

TEST_F(StagedLogon, RefusesAGarbledSavedHiveAndLoadsItWholeOnceMended) {
  const std::wstring user = L" " + name_ + L" --sid " + sid_ + L" --key " + devKey_;
  SetRunValue(L"kept.json");
  auto run = Tool(L"stageduser.exe", L"logoff" + user);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_FALSE(winestandins::hive::HiveLoaded(sid_)) << "logoff unloads the hive";
  const std::wstring file = profile_ + L"\\" + winestandins::kHiveFileName;
  const std::string whole = testsupport::ReadFileBytes(file);
  ASSERT_FALSE(whole.empty());

  testsupport::WriteFileBytes(file, whole.substr(0, whole.size() / 2));
  run = Tool(L"stageduser.exe", L"logon" + user);
  EXPECT_EQ(run.exitCode, 1u) << run.output;
  EXPECT_NE(run.output.find("refused"), std::string::npos) << run.output;
  EXPECT_FALSE(winestandins::hive::HiveLoaded(sid_)) << "nothing of a refused file is loaded";

  testsupport::WriteFileBytes(file, whole);
  run = Tool(L"stageduser.exe", L"logon" + user);
  EXPECT_EQ(run.exitCode, 0u) << run.output;
  wchar_t command[1024] = {};
  DWORD bytes = sizeof command;
  EXPECT_EQ(::RegGetValueW(HKEY_USERS, (sid_ + L"\\" + logon::kRunSubkey).c_str(), L"LumeraProbeRun", RRF_RT_REG_SZ,
                           nullptr, command, &bytes),
            0);
  EXPECT_EQ(std::wstring(command), Workload(L"kept.json")) << "the Run value saved at logoff";
  std::wstring target;
  EXPECT_TRUE(winestandins::hive::ReadLinkTarget(HKEY_USERS, sid_ + L"\\Software\\Classes", target));
  EXPECT_EQ(target, L"\\Registry\\User\\" + sid_ + L"_Classes");
}

TEST(StagingTools, AnswerHelpWithZeroAndABadCommandLineWithTwo) {
  for (const wchar_t* exe : {L"stageduser.exe", L"stagedlogon.exe"}) {
    const auto help = Tool(exe, L"--help");
    EXPECT_EQ(help.exitCode, 0u) << Narrow(exe);
    EXPECT_NE(help.output.find("Exit codes"), std::string::npos) << help.output;
    EXPECT_EQ(Tool(exe, L"--bogus").exitCode, 2u) << Narrow(exe);
  }
  EXPECT_EQ(Tool(L"stageduser.exe", L"create bad:name").exitCode, 2u);
  EXPECT_EQ(Tool(L"stageduser.exe", L"create someone --sid S-1-5-18").exitCode, 2u) << "not an account's SID";
}

}  // namespace
