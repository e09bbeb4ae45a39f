// StartLauncher.exe /delayed for a console user who is not the account the test runs as: the
// entries that user delayed through startupctl start after the wait, as that user, one gap
// apart and once per logon; entries enabled again or whose program is gone never start.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "lumera_dev/staged_identity.h"
#include "support/programs.h"
#include "support/scoped_environment.h"
#include "support/scratch_folder.h"
#include "support/staged_user.h"
#include "support/test_thread.h"

namespace {

using testsupport::Narrow;

constexpr DWORD kWaitMs = 2000;
constexpr DWORD kGapMs = 200;
// GetSystemTimeAsFileTime moves in steps of up to 16 ms.
constexpr unsigned long long kClockStepMs = 20;

struct Start {
  unsigned long pid = 0;
  unsigned long long ms = 0;
  std::string localAppData;
};

unsigned long long NowMs() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return ((static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime) / 10000;
}

// When the first log line holding `text` was written ("2026-11-25 03:12:06.655 ..."), in ms
// since 1601 like NowMs; 0 when there is none.
unsigned long long LoggedMs(const std::string& log, const std::string& text) {
  const std::size_t at = log.find(text);
  if (at == std::string::npos) return 0;
  const std::size_t line = log.rfind('\n', at) == std::string::npos ? 0 : log.rfind('\n', at) + 1;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, ms = 0;
  if (std::sscanf(log.c_str() + line, "%d-%d-%d %d:%d:%d.%d", &year, &month, &day, &hour, &minute, &second, &ms) != 7) {
    return 0;
  }
  const SYSTEMTIME time{static_cast<WORD>(year),   static_cast<WORD>(month),  0, static_cast<WORD>(day),
                        static_cast<WORD>(hour),   static_cast<WORD>(minute), static_cast<WORD>(second),
                        static_cast<WORD>(ms)};
  FILETIME file{};
  if (!::SystemTimeToFileTime(&time, &file)) return 0;
  return ((static_cast<unsigned long long>(file.dwHighDateTime) << 32) | file.dwLowDateTime) / 10000;
}

// What start_recorder.exe wrote beside the program at `exe`, one record per start.
std::vector<Start> StartsOf(const std::wstring& exe) {
  std::istringstream lines(testsupport::ReadFileBytes(exe + L".starts"));
  std::vector<Start> starts;
  Start start;
  while (lines >> start.pid >> start.ms >> start.localAppData) starts.push_back(start);
  return starts;
}

// The starts recorded once `count` of them are there, or what there is after a bounded wait: a
// started program writes its record after the launcher has gone on.
std::vector<Start> WaitForStarts(const std::wstring& exe, std::size_t count) {
  testsupport::WaitUntil([&] { return StartsOf(exe).size() >= count; });
  return StartsOf(exe);
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

class DelayedStart : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { (void)lumera::dev::InstallStagedIdentity(::GetModuleHandleW(nullptr)); }

  void SetUp() override {
    id_ = testsupport::UniqueSuffix();
    user_ = std::make_unique<testsupport::StagedUser>();
    logDir_ = std::make_unique<testsupport::ScopedEnvironment>(L"LUMERA_LOG_DIR", logs_.path());
  }
  void TearDown() override {
    logDir_.reset();
    user_.reset();
  }

  // A copy of the recorder among the user's own programs, reached only through their profile.
  std::wstring Program(const std::wstring& name) const { return user_->Local() + L"\\Programs\\" + name + id_ + L".exe"; }
  std::wstring Name(const std::wstring& name) const { return name + id_; }
  void PlaceProgram(const std::wstring& name) const {
    ::SHCreateDirectoryExW(nullptr, (user_->Local() + L"\\Programs").c_str(), nullptr);
    ASSERT_TRUE(::CopyFileW((testsupport::ExeFolder() + L"start_recorder.exe").c_str(), Program(name).c_str(), FALSE));
  }
  void AddRun(const std::wstring& name) const {
    PlaceProgram(name);
    user_->SetRun(Name(name), L"\"%LOCALAPPDATA%\\Programs\\" + name + id_ + L".exe\" --tray");
  }
  // A shortcut in the user's Startup folder to the program.
  void AddShortcut(const std::wstring& name) const {
    PlaceProgram(name);
    ASSERT_HRESULT_SUCCEEDED(testsupport::SaveShortcut(user_->Startup() + L"\\" + Name(name) + L".lnk", Program(name)));
  }
  static void Ctl(const std::wstring& verb, const std::wstring& name) {
    const auto run = testsupport::RunBinProgram(L"startupctl.exe", verb + L" " + name);
    ASSERT_EQ(run.exitCode, 0u) << Narrow(verb + L" " + name) << ": " << run.output;
  }
  static testsupport::ProgramRun Launch(DWORD waitMs, DWORD gapMs) {
    return testsupport::RunBinProgram(L"StartLauncher.exe", L"/delayed --wait-ms " + std::to_wstring(waitMs) +
                                                                L" --gap-ms " + std::to_wstring(gapMs));
  }
  std::string Log() const { return testsupport::ReadFileBytes(logs_.file(L"lumera.log")); }

  std::wstring id_;
  std::unique_ptr<testsupport::StagedUser> user_;
  testsupport::ScratchFolder logs_;
  std::unique_ptr<testsupport::ScopedEnvironment> logDir_;
};

TEST_F(DelayedStart, ARunEntryAndAShortcutStartAfterTheWaitOneGapApartAsTheUserOncePerLogon) {
  AddRun(L"DelayRun");
  AddShortcut(L"DelayLink");
  Ctl(L"delay", Name(L"DelayRun"));
  Ctl(L"delay", Name(L"DelayLink") + L".lnk");
  ASSERT_TRUE(StartsOf(Program(L"DelayRun")).empty()) << "delaying starts nothing";
  const std::string table = testsupport::RunBinProgram(L"startupctl.exe", L"list").output;
  const std::size_t row = table.find(Narrow(Name(L"DelayRun")) + "\t");
  ASSERT_NE(row, std::string::npos) << table;
  EXPECT_NE(table.substr(row, table.find('\n', row) - row).find("\tdelayed (starts after the boot)\t"), std::string::npos)
      << table;

  const unsigned long long launched = NowMs();
  const auto run = Launch(kWaitMs, kGapMs);
  ASSERT_EQ(run.exitCode, 0u) << run.output << Log();
  const auto runStarts = WaitForStarts(Program(L"DelayRun"), 1);
  const auto linkStarts = WaitForStarts(Program(L"DelayLink"), 1);
  ASSERT_EQ(runStarts.size(), 1u) << Log();
  ASSERT_EQ(linkStarts.size(), 1u) << Log();
  for (const Start& start : {runStarts[0], linkStarts[0]}) {
    EXPECT_GE(start.ms + kClockStepMs, launched + kWaitMs) << "no module answered: the launcher waits it out";
    EXPECT_EQ(Lower(start.localAppData), Lower(Narrow(user_->Local()))) << "started in the console user's environment";
  }
  // A started program's own clock reading lags its start by whatever Wine takes to load it, so
  // the gap is read from the launcher's log.
  const std::string log = Log();
  const unsigned long long runLogged = LoggedMs(log, "started " + Narrow(Name(L"DelayRun")));
  const unsigned long long linkLogged = LoggedMs(log, "started " + Narrow(Name(L"DelayLink")));
  ASSERT_TRUE(runLogged != 0 && linkLogged != 0) << log;
  EXPECT_GE(linkLogged + kClockStepMs, runLogged + kGapMs) << "one at a time, a gap apart, the older delay first\n" << log;
  EXPECT_NE(log.find("started " + Narrow(Name(L"DelayRun")) + " pid " + std::to_string(runStarts[0].pid)), std::string::npos)
      << log;
  EXPECT_NE(log.find("started " + Narrow(Name(L"DelayLink")) + ".lnk"), std::string::npos) << log;

  const auto again = Launch(0, 0);
  EXPECT_EQ(again.exitCode, 0u) << again.output;
  EXPECT_EQ(StartsOf(Program(L"DelayRun")).size(), 1u) << "a second run in the same logon starts nothing";
  EXPECT_EQ(StartsOf(Program(L"DelayLink")).size(), 1u);
  EXPECT_NE(Log().find("skipped " + Narrow(Name(L"DelayRun")) + ": already started in this logon"), std::string::npos);
  Ctl(L"enable", Name(L"DelayRun"));
  Ctl(L"enable", Name(L"DelayLink") + L".lnk");
}

TEST_F(DelayedStart, AnEntryEnabledAgainOrWhoseProgramIsGoneIsNotStarted) {
  AddRun(L"Back");
  AddRun(L"Gone");
  AddRun(L"Kept");
  for (const wchar_t* name : {L"Back", L"Gone", L"Kept"}) Ctl(L"delay", Name(name));
  Ctl(L"enable", Name(L"Back"));
  ASSERT_TRUE(::DeleteFileW(Program(L"Gone").c_str()));

  const auto run = Launch(0, 0);
  ASSERT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_TRUE(StartsOf(Program(L"Back")).empty()) << "enabled again: the logon starts it, not the launcher";
  EXPECT_EQ(WaitForStarts(Program(L"Kept"), 1).size(), 1u) << Log();
  EXPECT_NE(Log().find("skipped " + Narrow(Name(L"Gone")) + ": target gone"), std::string::npos) << Log();
  Ctl(L"enable", Name(L"Kept"));
}

}  // namespace
