// The fixed log texts of the startup actions and of the store, each asserted where its
// failure or decision is provoked.
#include <gtest/gtest.h>

#include <cwctype>
#include <functional>

#include "scratch.h"
#include "startup/action_exec.h"
#include "startup/run_key_apps.h"
#include "startup/startup_folder_apps.h"
#include "startup/startup_items.h"
#include "startup/win8_actions.h"
#include "startup/win8_startup_item.h"
#include "support/captured_log.h"

namespace {

using startup::StartupItemList;
using testing_startup::MakeItem;
using testing_startup::ScratchRunKey;
using testing_startup::ScratchStore;

struct Case {
  const char* what;
  std::function<void()> provoke;
  std::vector<std::wstring> logged;
};

void ExpectLogged(const Case& c) {
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  c.provoke();
  for (const std::wstring& text : c.logged) EXPECT_TRUE(log.contains(text)) << c.what << ": " << testing::PrintToString(text);
}

TEST(StartupLogTexts, ActionsAndTheStoreNameEachDecisionAndFailure) {
  testsupport::ScratchFolder folder;
  ScratchRunKey run;
  ScratchStore store;
  run.Set(L"App", REG_SZ, L"C:\\apps\\app.exe");
  const std::wstring notAFolder = testsupport::WriteFileBytes(folder.file(L"plain.txt"));
  const std::wstring tooLongKey = L"HKEY_CURRENT_USER\\" + run.Top() + L"\\" + std::wstring(300, L'k') + L"\\Run";
  // The StartupApproved key of the scratch Run key, lower-cased as the module builds it.
  std::wstring lowerApproved = run.Top() + L"\\currentversion\\explorer\\startupapproved\\run";
  for (wchar_t& ch : lowerApproved) ch = static_cast<wchar_t>(std::towlower(ch));
  StartupItemList none;
  auto& storage = startup::storage::CStartupItemsStorage::Instance();
  const Case cases[] = {
      {"older Windows", [] { startup::StartupAppsActionExec exec(false); },
       {L"-> StartupAppsActionExec::StartupAppsActionExec", L"bellow Windows8"}},
      {"Windows 8 or later", [] { startup::StartupAppsActionExec exec(true); }, {L"Windows8OrGreater"}},
      {"user lookup",
       [] {
         std::wstring sid;
         (void)startup::CStartupItems::GetCrtUserSid(sid);
       },
       {L"szUserName="}},
      {"missing Run key",
       [&] { (void)startup::CRunKeyAppsEnumerator(HKEY_CURRENT_USER, 1).GetStartupApps(run.Top() + L"\\none", none); },
       {L"RegOpenKey HKEY_CURRENT_USER\\" + run.Top() + L"\\none failed 0x2"}},
      {"listed Run value",
       [&] { (void)startup::CRunKeyAppsEnumerator(HKEY_CURRENT_USER, 1).GetStartupApps(run.Subkey(), none); },
       {L"App C:\\apps\\app.exe " + run.Location() + L" user"}},
      {"Run value that is not there",
       [&] {
         startup::CRunKeyAppsActions actions;
         (void)actions.Disable({MakeItem(L"Gone", run.Location(), L"x.exe")}, false);
         (void)actions.Delay({MakeItem(L"Gone", run.Location(), L"x.exe")}, false);
       },
       {L"Disable " + run.Location() + L" Gone", L"Delay " + run.Location() + L" Gone", L"FAILED " + run.Location()}},
      {"backup folder inside a file",
       [&] { (void)startup::CStartupFolderActions(startup::kBackupFolderName).Disable({MakeItem(L"a.exe", notAFolder, L"a.exe")}, false); },
       {L"FAILED CreateBackupFolderForStartupItem " + notAFolder}},
      {"unwritable store for a folder entry",
       [&] {
         const std::wstring file = testsupport::WriteFileBytes(folder.file(L"keep.exe"));
         const auto unwritable = testing_startup::PointStoreAtUnwritablePath();
         (void)startup::CStartupFolderActions(startup::kBackupFolderName).Disable({MakeItem(L"keep.exe", folder.path(), file)}, true);
       },
       {L"FAILED storage::SaveStartupItem " + folder.path(), L"Save failed"}},
      {"first StartupApproved write",
       [&] { (void)startup::Win8StartupItem::Disable(*MakeItem(L"App", run.Location(), L"a.exe"), startup::kSourceRunKey); },
       {L"failed open " + lowerApproved + L" App", L"failed open " + lowerApproved + L" App, try create",
        L"GetItemRegValue failed 0x2"}},
      {"second disable",
       [&] { (void)startup::Win8StartupItem::Disable(*MakeItem(L"App", run.Location(), L"a.exe"), startup::kSourceRunKey); },
       {L"item is disabled"}},
      {"location that is no Run key",
       [&] { (void)startup::Win8StartupItem::Disable(*MakeItem(L"App", L"HKEY_CURRENT_USER\\Software\\Other", L"a.exe"), startup::kSourceRunKey); },
       {L"GetItemRegKey failed"}},
      {"StartupApproved key that cannot be made",
       [&] { (void)startup::Win8StartupItem::Disable(*MakeItem(L"App", tooLongKey, L"a.exe"), startup::kSourceRunKey); },
       {L"failed create ", L"SetItemRegValue failed 0x"}},
      {"value name the registry refuses",
       [&] {
         (void)startup::Win8StartupItem::Disable(*MakeItem(std::wstring(20000, L'v'), run.Location(), L"a.exe"),
                                                 startup::kSourceRunKey);
       },
       {L"failed set value HKEY_CURRENT_USER " + lowerApproved + L" vvv"}},
      {"enable that cannot find its key",
       [&] {
         startup::CWin8RunKeyAppsActions actions;
         (void)actions.Enable({MakeItem(L"App", L"HKEY_CURRENT_USER\\Software\\Other", L"a.exe")}, false);
       },
       {L"Enable HKEY_CURRENT_USER\\Software\\Other App", L"Win8StartupItem::Enable FAILED HKEY_CURRENT_USER\\Software\\Other"}},
      {"store init", [&] { storage.Init(store.Path()); }, {L"storage=" + store.Path()}},
      {"unreadable store before a save",
       [&] {
         store.Write("{not json");
         (void)storage.SaveStartupItem(MakeItem(L"App", L"HKEY_CURRENT_USER\\Run", L"a.exe"), "Disabled");
       },
       {L"Failed load file"}},
      {"store section read", [&] { (void)store.Load("Delayed"); }, {L"strSection: Delayed"}},
  };
  for (const Case& c : cases) ExpectLogged(c);
}

}  // namespace
