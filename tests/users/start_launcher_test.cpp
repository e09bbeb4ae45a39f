// The check started at logoff: the command lines the module builds, and StartLauncher.exe
// dropping stale records of a user's backup store while keeping live ones.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "startup/scratch.h"
#include "startup/startup_storage.h"
#include "support/captured_log.h"
#include "support/programs.h"
#include "support/scoped_environment.h"
#include "support/scoped_override.h"
#include "support/scratch_folder.h"
#include "support/staged_console.h"
#include "users/ky_users.h"
#include "users/start_launcher_check.h"
#include "users/user_logon.h"
#include "users/user_profile.h"

namespace {

// A profile of the account the test runs as, with its own token, made current for one test.
std::shared_ptr<const velora::utils::CUserProfile> ProfileWithToken() {
  ky::unique_handle token;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE, token.put())) {
    return nullptr;
  }
  return velora::utils::CUserProfile::Make(L"user", L"", L"S-1-5-21-0-0-0-1000", std::move(token));
}

using ProfileOverride = testsupport::ScopedOverride<std::shared_ptr<const velora::utils::CUserProfile>>;

TEST(StartLauncherCheckExec, ALogoffStartsTheCheckAsTheUserForTheirRoamingFolder) {
  testsupport::CapturedLog log;
  CStartLauncherCheckExec check;
  CUserLogon tracker;
  CUserLogon::ScopedOverride override(tracker);
  auto get = [] { return velora::utils::CUserProfile::Current(); };
  auto set = [](const std::shared_ptr<const velora::utils::CUserProfile>& p) { velora::utils::CUserProfile::SetCurrent(p); };
  check.OnLogon(1, L"user");
  EXPECT_EQ(log.count(L"Process = "), 0u) << "a logon starts nothing";

  {
    const ProfileOverride nobody(get, set, nullptr);
    check.OnLogoff(2, L"user");  // no folder known: the users library is not loaded
    EXPECT_GT(log.countUnder(L"CStartLauncherCheckExec::Run",
                             L"Process = 'StartLauncher.exe /checkcrtuser' could not be created. Error = 1008"), 0u)
        << "without the user's token nothing is started as the service";
  }

  const ProfileOverride user(get, set, ProfileWithToken());
  ASSERT_TRUE(velora::utils::CUserProfile::Current() && velora::utils::CUserProfile::Current()->HasToken());

  ky::unique_module users(::LoadLibraryW((testsupport::ExeFolder() + L"kyusers.dll").c_str()));
  ASSERT_TRUE(velora::utils::CKYUsers::Instance().ReloadDll());
  tracker.GetCurrentUser();
  const std::wstring folder = tracker.AppDataFolder();
  ASSERT_FALSE(folder.empty()) << "the Wine user has a roaming folder";
  check.OnLogoff(3, L"user");
  EXPECT_GT(log.countUnder(L"CStartLauncherCheckExec::Run",
                           L"Process = 'StartLauncher.exe \"/checkuser:" + folder + L"\"' could not be created. Error = 2"), 0u)
      << "as the user, for their roaming folder; StartLauncher.exe is not beside the test program";
  velora::utils::CKYUsers::Instance().UnloadDll();
}

using testing_startup::MakeItem;

class StartLauncherProgram : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(std::filesystem::path(storePath).parent_path()); }
  testsupport::ProgramRun Launch(const std::wstring& arguments) {
    return testsupport::RunProgram(testsupport::Quoted(testsupport::BinFolder() / L"StartLauncher.exe") + L" " +
                                   arguments);
  }
  std::wstring Names(const char* category) {
    startup::storage::CStartupItemsStorage store;
    store.Init(storePath);
    startup::StartupItemList items;
    if (store.LoadStartupItems(category, items) != 0) return L"unreadable";
    std::wstring names;
    for (const auto& item : items) names += item->name + L";";
    return names;
  }

  testsupport::ScratchFolder folder;
  std::wstring storePath = folder.file(L"Nexalon\\Lumera\\Storage.json");
  const testsupport::ScopedEnvironment logConsole{L"LUMERA_LOG_CONSOLE", L"1"};
  const testsupport::ScopedEnvironment logDir{L"LUMERA_LOG_DIR", folder.path()};
};

TEST_F(StartLauncherProgram, DropsStaleRecordsAndKeepsLiveOnes) {
  const std::wstring run = L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
  const std::wstring live = folder.file(L"live.exe");
  std::ofstream(std::filesystem::path(live)) << "x";
  startup::storage::CStartupItemsStorage store;
  store.Init(storePath);
  ASSERT_EQ(store.SaveStartupItems({MakeItem(L"LiveRun", run, L"\"" + live + L"\" /min"),
                                    MakeItem(L"StaleRun", run, L"C:\\nowhere\\gone.exe")},
                                   startup::kCategoryDisabled),
            0u);
  ASSERT_EQ(store.SaveStartupItems({MakeItem(L"StaleLink.lnk", folder.path(), folder.file(L"gone.lnk")),
                                    MakeItem(L"live.exe", folder.path(), live)},
                                   startup::kCategoryStartupDelayed),
            0u);

  const auto result = Launch(L"\"/checkuser:" + folder.path() + L"\"");
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  EXPECT_EQ(Names(startup::kCategoryDisabled), L"LiveRun;");
  EXPECT_EQ(Names(startup::kCategoryStartupDelayed), L"live.exe;");
  EXPECT_NE(result.output.find("kept 2, dropped 2"), std::string::npos) << result.output;
}

TEST_F(StartLauncherProgram, AMissingOrUnreadableStoreChangesNothing) {
  auto result = Launch(L"/checkuser:" + folder.path());
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  EXPECT_NE(result.output.find("no store to check at"), std::string::npos) << result.output;
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(storePath)));

  std::ofstream(std::filesystem::path(storePath), std::ios::binary) << "{\"user\":";
  result = Launch(L"/checkuser:" + folder.path());
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  EXPECT_NE(result.output.find("cannot be read; nothing changed"), std::string::npos) << result.output;
  EXPECT_EQ(testsupport::ReadFileBytes(storePath), "{\"user\":");
}

TEST_F(StartLauncherProgram, ABadCommandLineGetsTheUsageAndTwo) {
  for (const wchar_t* arguments : {L"", L"/checkuser:", L"/checkuser", L"/checkcrtuser extra", L"/CHECKCRTUSER"}) {
    const auto result = Launch(arguments);
    EXPECT_EQ(result.exitCode, 2u) << arguments;
    EXPECT_NE(result.output.find("usage: StartLauncher.exe"), std::string::npos) << arguments;
  }
}

TEST_F(StartLauncherProgram, TheConsoleUsersCheckWithNobodyAtTheConsoleChangesNothing) {
  testsupport::ProgramRun result;
  {
    const testsupport::StagedConsole console(L"ConsoleSession.launcher");
    console.Set(0);
    result = Launch(L"/checkcrtuser");
  }
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  EXPECT_NE(result.output.find("no console user folder to check 0x3f0"), std::string::npos) << result.output;
}

}  // namespace
