// The startup entries of a user logged on at the console who is not the account this program
// runs as, which is what a LocalSystem service sees: the user's hive, folders, environment and
// classes are reached through the user, and this account's own (the decoys) are never touched.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <memory>
#include <string>

#include "lumera/storeappslist.h"
#include "lumera_dev/staged_identity.h"
#include "picojson.h"
#include "report/report_files.h"
#include "startup/action_exec.h"
#include "startup/application.h"
#include "startup/run_key_apps.h"
#include "startup/scratch.h"
#include "startup/startup_folder_apps.h"
#include "startup/startup_items.h"
#include "startup/startup_storage.h"
#include "startup/store_startup_item.h"
#include "store/store_scratch.h"
#include "support/programs.h"
#include "support/registry_values.h"
#include "support/scoped_environment.h"
#include "support/scratch_folder.h"
#include "support/staged_user.h"

namespace {

using testing_report::Fixture;
using testing_startup::Enumerate;
using testing_startup::Named;
using testsupport::EnvironmentValue;
using testsupport::Narrow;
using testsupport::ScopedEnvironment;
using testsupport::StagedUser;

using testsupport::HasRegValue;
using testsupport::kApprovedFolder;
using testsupport::kApprovedRun;
using testsupport::kRunKey;
constexpr char kUserCompany[] = "Fixture Works Ltd";

int ApprovedByte(const std::wstring& key, const std::wstring& name) {
  return testsupport::ApprovedFirstByte(HKEY_USERS, key, name);
}

bool SamePath(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

void Copy(const std::wstring& from, const std::wstring& to) {
  const std::wstring folder = to.substr(0, to.find_last_of(L'\\'));
  ::SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
  ASSERT_TRUE(::CopyFileW(from.c_str(), to.c_str(), FALSE)) << Narrow(to);
}

// The staged user with a program only their profile holds (started through %LOCALAPPDATA%), a
// program found on their own Path, and a file in their Startup folder; this account holds a
// decoy Run value, a decoy Startup file, and a decoy copy of the Path program on its own PATH.
class SecondIdentity : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { (void)lumera::dev::InstallStagedIdentity(::GetModuleHandleW(nullptr)); }

  void SetUp() override {
    id_ = testsupport::UniqueSuffix();
    user_ = std::make_unique<StagedUser>();
    localTool_ = user_->Local() + L"\\Programs\\Tool\\tool" + id_ + L".exe";
    Copy(Fixture(L"full"), localTool_);
    pathTool_ = L"lumerapath" + id_ + L".exe";
    Copy(Fixture(L"full"), user_->Profile() + L"\\bin\\" + pathTool_);
    user_->SetUserPath(L"%USERPROFILE%\\bin");
    Copy(Fixture(L"german"), decoys_.file(pathTool_));
    decoyPath_ = std::make_unique<ScopedEnvironment>(L"PATH", decoys_.path() + L";" + EnvironmentValue(L"PATH"));

    user_->SetRun(LocalName(), L"\"%LOCALAPPDATA%\\Programs\\Tool\\tool" + id_ + L".exe\" --tray");
    user_->SetRun(PathName(), pathTool_ + L" --quiet");
    Copy(Fixture(L"full"), user_->Startup() + L"\\" + StartupName());
    ASSERT_EQ(testsupport::SetRegText(HKEY_CURRENT_USER, kRunKey, DecoyRun(), Fixture(L"german")), ERROR_SUCCESS);
    decoyStartup_ = testsupport::SpecialFolder(CSIDL_STARTUP) + L"\\" + DecoyStartup();
    Copy(Fixture(L"german"), decoyStartup_);
  }

  void TearDown() override {
    decoyPath_.reset();
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, DecoyRun().c_str());
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kApprovedFolder, DecoyStartup().c_str());
    ::DeleteFileW(decoyStartup_.c_str());
    user_.reset();
  }

  std::wstring LocalName() const { return L"LumeraLocal" + id_; }
  std::wstring PathName() const { return L"LumeraOnPath" + id_; }
  std::wstring StartupName() const { return L"LumeraUserStartup" + id_ + L".exe"; }
  std::wstring DecoyRun() const { return L"DecoyRun" + id_; }
  std::wstring DecoyStartup() const { return L"DecoyStartup" + id_ + L".exe"; }

  std::wstring id_;
  std::unique_ptr<StagedUser> user_;
  testsupport::ScratchFolder decoys_;
  std::unique_ptr<ScopedEnvironment> decoyPath_;
  std::wstring localTool_;
  std::wstring pathTool_;
  std::wstring decoyStartup_;
};

TEST_F(SecondIdentity, TheSourcesAreTheConsoleUsersAndTheMachinesNeverThisAccounts) {
  startup::CStartupItems sources;
  ASSERT_NE(sources.User(), nullptr);
  EXPECT_EQ(sources.User()->UserName(), user_->Name());
  EXPECT_EQ(sources.User()->Sid(), user_->Sid());
  ASSERT_EQ(sources.RunKeySources().size(), 3u);
  EXPECT_EQ(static_cast<startup::CRunKeyAppsEnumerator&>(*sources.RunKeySources()[0].first).Root(), HKEY_USERS);
  EXPECT_EQ(sources.RunKeySources()[0].second, user_->RunKey());
  EXPECT_EQ(sources.RunKeySources()[1].second, kRunKey) << "then the machine's Run key and its 32-bit view";
  EXPECT_EQ(sources.RunKeySources()[2].second, L"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run");
  ASSERT_EQ(sources.FolderSources().size(), 2u);
  EXPECT_EQ(static_cast<startup::CStartupFolderEnumerator&>(*sources.FolderSources()[0].first).IsUser(), 1);
  EXPECT_TRUE(SamePath(sources.FolderSources()[0].second, user_->Startup() + L"\\"))
      << "the user's known Startup folder, not this account's: " << Narrow(sources.FolderSources()[0].second);

  auto items = Enumerate(sources.RunKeySources());
  const auto folderItems = Enumerate(sources.FolderSources());
  items.insert(items.end(), folderItems.begin(), folderItems.end());
  ASSERT_NE(Named(items, LocalName()), nullptr);
  EXPECT_EQ(Named(items, LocalName())->location, user_->RunLocation());
  EXPECT_NE(Named(items, PathName()), nullptr);
  EXPECT_NE(Named(items, StartupName()), nullptr);
  EXPECT_EQ(Named(items, DecoyRun()), nullptr) << "this account's HKEY_CURRENT_USER is the service's own hive";
  EXPECT_EQ(Named(items, DecoyStartup()), nullptr) << "this account's Startup folder is the service's own";
}

TEST_F(SecondIdentity, CommandsAreReadInTheirOwnersEnvironment) {
  startup::CStartupItems sources;
  const auto items = Enumerate(sources.RunKeySources());
  const auto local = Named(items, LocalName());
  const auto onPath = Named(items, PathName());
  ASSERT_TRUE(local && onPath);
  startup::StartupAppsActionExec exec;
  for (const auto& [item, file] : {std::pair{local, localTool_}, std::pair{onPath, user_->Profile() + L"\\bin\\" + pathTool_}}) {
    startup::Application app;
    ASSERT_TRUE(app.Init(*item, startup::kSourceRunKey, 0)) << Narrow(item->path);
    EXPECT_TRUE(SamePath(app.path, file)) << Narrow(app.path);
    EXPECT_EQ(Narrow(app.company), kUserCompany) << "the user's program, not the decoy on this account's PATH";
    EXPECT_EQ(exec.Find(startup::kSourceRunKey)->Check(*item), 0) << Narrow(item->path);
  }

  // The same command as a machine entry is read in the machine's environment, which has no
  // user folders: its target is not found.
  startup::StartupItem machine = *local;
  machine.isUser = 0;
  machine.location = L"HKEY_LOCAL_MACHINE\\" + std::wstring(kRunKey);
  startup::Application app;
  EXPECT_FALSE(app.Init(machine, startup::kSourceRunKey, 0));
}

TEST_F(SecondIdentity, TheUsersStoreTasksComeFromTheUsersClasses) {
  if (!testsupport::WineFlavourIsWin10()) GTEST_SKIP() << "no Store tasks below Windows 8";
  // A package of the user's and a decoy package of this account's, each declaring a task.
  testsupport::ScratchFolder packageFolder;
  const std::wstring family = L"LumeraUserPkg" + id_ + L"_8wekyb3d8bbwe";
  const std::wstring fullName = L"LumeraUserPkg" + id_ + L"_1.0.0.0_x64__8wekyb3d8bbwe";
  const std::wstring decoyFullName = L"DecoyPkg" + id_ + L"_1.0.0.0_x64__8wekyb3d8bbwe";
  Copy(Fixture(L"full"), packageFolder.file(L"App.exe"));
  testsupport::WriteFileBytes(packageFolder.file(L"AppxManifest.xml"),
                              testing_store::Manifest(testing_store::Uap5Application("App", "App.exe", "LumeraTask", "true")));
  const std::wstring root = packageFolder.path().substr(0, packageFolder.path().size() - 1);
  const auto registerPackage = [&](HKEY hive, const std::wstring& classes, const std::wstring& name) {
    const std::wstring key = classes + storeapps::kPackagesKeyPath + L"\\" + name;
    ASSERT_EQ(testsupport::SetRegText(hive, key, storeapps::kRootFolderValue, root), ERROR_SUCCESS);
  };
  registerPackage(HKEY_USERS, user_->Hive(L"Software\\Classes\\"), fullName);
  registerPackage(HKEY_CURRENT_USER, L"Software\\Classes\\", decoyFullName);
  registerPackage(HKEY_CLASSES_ROOT, L"", decoyFullName);

  startup::CStartupItems sources;
  ASSERT_EQ(sources.StoreSources().size(), 1u);
  const auto tasks = Enumerate(sources.StoreSources());
  for (const auto& task : tasks) EXPECT_EQ(task->location.find(L"DecoyPkg"), std::wstring::npos) << Narrow(task->location);
  const auto task = Named(tasks, L"LumeraTask");
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(task->location, L"HKEY_USERS\\" + user_->Hive(L"Software\\Classes\\") + startup::kStoreAppsKeyPath + L"\\" + family);
  ASSERT_EQ(startup::MicrosoftStoreStartupItem::Disable(*task), 0u);
  DWORD state = 0;
  DWORD bytes = sizeof(state);
  const std::wstring stateKey = user_->Hive(L"Software\\Classes\\") + startup::kStoreAppsKeyPath + L"\\" + family + L"\\LumeraTask";
  EXPECT_EQ(::RegGetValueW(HKEY_USERS, stateKey.c_str(), L"State", RRF_RT_REG_DWORD, nullptr, &state, &bytes), ERROR_SUCCESS);
  EXPECT_EQ(state, startup::kStoreStateDisabledByUser);

  ::RegDeleteTreeW(HKEY_CURRENT_USER, (std::wstring(L"Software\\Classes\\") + storeapps::kPackagesKeyPath + L"\\" + decoyFullName).c_str());
  ::RegDeleteTreeW(HKEY_CLASSES_ROOT, (std::wstring(storeapps::kPackagesKeyPath) + L"\\" + decoyFullName).c_str());
}

TEST_F(SecondIdentity, NobodyAtTheConsoleLeavesTheMachinesSourcesAndKeepsUserRecords) {
  user_->SetLoggedOn(false);
  startup::CStartupItems sources;
  EXPECT_EQ(sources.User(), nullptr);
  ASSERT_EQ(sources.RunKeySources().size(), 2u) << "the user's Run key is left out, never replaced by this account's";
  for (const auto& [enumerator, path] : sources.RunKeySources()) EXPECT_EQ(path.find(L"S-1-"), std::wstring::npos);
  EXPECT_EQ(sources.FolderSources().size(), 1u) << "the machine's Startup folder only";
  EXPECT_TRUE(sources.StoreSources().empty());
  std::wstring folder;
  EXPECT_EQ(startup::storage::UserStorageFolder(sources.User().get(), folder), static_cast<std::uint32_t>(ERROR_NO_TOKEN));

  // A stored user entry cannot be looked at without the user: it is kept, not dropped.
  startup::StartupItem stored;
  stored.name = LocalName();
  stored.location = user_->RunLocation();
  stored.path = L"%LOCALAPPDATA%\\Programs\\Tool\\tool" + id_ + L".exe";
  stored.isUser = 1;
  startup::StartupAppsActionExec exec;
  EXPECT_EQ(exec.Find(startup::kSourceRunKey)->Check(stored), 0);
}

// startupctl.exe and StartLauncher.exe run as this account and act for the console user,
// through the same code as the module.
TEST_F(SecondIdentity, TheToolsListAndChangeTheConsoleUsersEntries) {
  const auto list = testsupport::RunBinProgram(L"startupctl.exe", L"list --json");
  ASSERT_EQ(list.exitCode, 0u) << list.output;
  picojson::value parsed;
  ASSERT_TRUE(picojson::parse(parsed, list.output).empty() && parsed.is<picojson::array>()) << list.output;
  bool listed = false;
  for (const auto& entry : parsed.get<picojson::array>()) {
    const std::string name = entry.get("name").to_str();
    EXPECT_EQ(name.find("Decoy"), std::string::npos) << "listed a decoy: " << name;
    if (name != Narrow(LocalName())) continue;
    listed = true;
    EXPECT_EQ(entry.get("user").to_str(), Narrow(user_->Name()));
    EXPECT_EQ(entry.get("company").to_str(), kUserCompany);
  }
  EXPECT_TRUE(listed) << list.output;
  const auto table = testsupport::RunBinProgram(L"startupctl.exe", L"list");
  EXPECT_EQ(table.output.rfind("user " + Narrow(user_->Name()) + " (" + Narrow(user_->Sid()) + ")", 0), 0u) << table.output;

  const auto disabled = testsupport::RunBinProgram(L"startupctl.exe", L"disable " + LocalName());
  ASSERT_EQ(disabled.exitCode, 0u) << disabled.output;
  const std::wstring store = user_->Roaming() + L"\\Nexalon\\Lumera\\Storage.json";
  EXPECT_NE(testsupport::ReadFileBytes(store).find(Narrow(LocalName())), std::string::npos) << "the user's own store";
  if (testsupport::WineFlavourIsWin10()) {
    EXPECT_EQ(ApprovedByte(user_->Hive(kApprovedRun), LocalName()), 1);
    EXPECT_FALSE(HasRegValue(HKEY_CURRENT_USER, kApprovedRun, LocalName())) << "never the service's own hive";
  } else {
    EXPECT_FALSE(HasRegValue(HKEY_USERS, user_->RunKey(), LocalName())) << "below Windows 8 the value is taken out";
  }
  // The logoff check reads the user's commands in the user's environment, so it keeps them.
  const auto check = testsupport::RunBinProgram(L"StartLauncher.exe", L"\"/checkuser:" + user_->Roaming() + L"\"");
  EXPECT_EQ(check.exitCode, 0u) << check.output;
  EXPECT_NE(testsupport::ReadFileBytes(store).find(Narrow(LocalName())), std::string::npos) << "the record was dropped";

  const auto enabled = testsupport::RunBinProgram(L"startupctl.exe", L"enable " + LocalName());
  ASSERT_EQ(enabled.exitCode, 0u) << enabled.output;
  EXPECT_TRUE(HasRegValue(HKEY_USERS, user_->RunKey(), LocalName()));
  EXPECT_EQ(testsupport::ReadFileBytes(store).find(Narrow(LocalName())), std::string::npos);
  EXPECT_EQ(ApprovedByte(user_->Hive(kApprovedRun), LocalName()), testsupport::WineFlavourIsWin10() ? 0 : -1);

  const auto delayed = testsupport::RunBinProgram(L"startupctl.exe", L"delay " + StartupName());
  ASSERT_EQ(delayed.exitCode, 0u) << delayed.output;
  EXPECT_NE(testsupport::ReadFileBytes(store).find("StartupDelayed"), std::string::npos) << "the user's own store";
  if (testsupport::WineFlavourIsWin10()) {
    EXPECT_EQ(ApprovedByte(user_->Hive(kApprovedFolder), StartupName()), 1);
    EXPECT_FALSE(HasRegValue(HKEY_CURRENT_USER, kApprovedFolder, StartupName()));
  } else {
    EXPECT_EQ(::GetFileAttributesW((user_->Startup() + L"\\" + StartupName()).c_str()), INVALID_FILE_ATTRIBUTES)
        << "below Windows 8 the file is put aside in the user's folder";
  }

  // The report is built from the same user: their apps, never this account's decoys.
  const auto report = testsupport::RunBinProgram(L"startupctl.exe", L"report");
  EXPECT_NE(report.output.find("Fixture Tray Helper"), std::string::npos) << report.output;
  EXPECT_EQ(report.output.find("Deutsche"), std::string::npos) << report.output;
  EXPECT_EQ(testsupport::RunBinProgram(L"startupctl.exe", L"enable " + StartupName()).exitCode, 0u);
  EXPECT_EQ(ApprovedByte(user_->Hive(kApprovedFolder), StartupName()), testsupport::WineFlavourIsWin10() ? 0 : -1);
}

}  // namespace
