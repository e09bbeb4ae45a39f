// Application records from real programs carrying version resources, the file identity from
// KYFastDB.dll, and Windows' own startup state on both sides of Windows 8.
#include <gtest/gtest.h>

#include <string>

#include "common/windows_version.h"
#include "lumera/kyutils.h"
#include "report_files.h"
#include "startup/application.h"
#include "startup/file_qid.h"
#include "startup/scratch.h"
#include "startup/win8_startup_item.h"
#include "support/captured_log.h"

namespace {

using startup::Application;
using startup::kSourceRunKey;
using startup::kSourceStartupFolder;
using testing_report::Fixture;
using testing_startup::MakeItem;
using testing_startup::ScratchRunKey;

std::wstring Text(const wchar_t* text) { return text != nullptr ? text : L"<null>"; }

TEST(VersionInfo, PicksTheFirstTranslationThenTheUsualTables) {
  CFileVersionInfo info;
  ASSERT_TRUE(info.Create(Fixture(L"full").c_str()));
  EXPECT_EQ(Text(info.GetCompanyName()), L"Fixture Works Ltd");
  EXPECT_EQ(Text(info.GetProductName()), L"Fixture Suite");
  EXPECT_EQ(Text(info.GetFileDescription()), L"Fixture Tray Helper");

  ASSERT_TRUE(info.Create(Fixture(L"german").c_str()));
  EXPECT_EQ(Text(info.GetCompanyName()), L"Deutsche Tabelle") << "the listed translation wins over 040904B0";

  ASSERT_TRUE(info.Create(Fixture(L"fallback").c_str()));
  EXPECT_EQ(Text(info.GetCompanyName()), L"Ansi Table Co") << "listed table missing: 040904E4";
  EXPECT_EQ(info.GetProductName(), nullptr);

  ASSERT_TRUE(info.Create(Fixture(L"nocompany").c_str()));
  EXPECT_EQ(info.GetCompanyName(), nullptr);
  EXPECT_EQ(Text(info.GetFileDescription()), L"Nameless Updater");

  EXPECT_FALSE(info.Create(Fixture(L"plain").c_str()));
  EXPECT_EQ(info.GetFileDescription(), nullptr) << "a failed Create drops the earlier resource";
  EXPECT_FALSE(info.Create(L"C:\\no-such-folder-lumera\\x.exe"));
}

TEST(Application, RunEntryGetsTheProgramsTextsAndTheIdentitySha256sumGives) {
  testsupport::CapturedLog log;
  Application app;
  auto item = MakeItem(L"Tray", L"HKEY_CURRENT_USER\\Software\\LumeraNone\\CurrentVersion\\Run",
                       L"\"" + Fixture(L"full") + L"\" /background");
  ASSERT_TRUE(app.Init(*item, kSourceRunKey, 0));
  EXPECT_EQ(app.path, Fixture(L"full"));
  EXPECT_EQ(app.description, L"Fixture Tray Helper");
  EXPECT_EQ(app.company, L"Fixture Works Ltd");
  EXPECT_EQ(app.product, L"Fixture Suite");
  EXPECT_FALSE(app.isStore);
  ASSERT_EQ(app.qid.size(), 64u);
  EXPECT_EQ(app.qid.find_first_not_of(L"0123456789abcdef"), std::wstring::npos) << "lower-case digits only";
  const std::wstring expected = testing_report::Sha256sumOf(L"full");
  if (!expected.empty()) {
    EXPECT_EQ(app.qid, expected);
  }
  EXPECT_EQ(log.count(L"Failed get QID"), 0u);
}

TEST(Application, AChangedFileIsReadAgainWhileAnUnchangedOneIsRemembered) {
  testsupport::ScratchFolder folder;
  const std::wstring program = folder.file(L"Swapped.exe");
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"full"), program));
  auto item = MakeItem(L"Swapped", L"HKEY_CURRENT_USER\\X\\Run", program);
  Application first;
  ASSERT_TRUE(first.Init(*item, kSourceRunKey, 0));
  EXPECT_EQ(first.company, L"Fixture Works Ltd");

  testsupport::CapturedLog log;
  Application again;
  ASSERT_TRUE(again.Init(*item, kSourceRunKey, 0));
  EXPECT_EQ(again.qid, first.qid);
  EXPECT_TRUE(log.entriesFor(L"GetApplicationInfo").empty()) << "an unchanged file is not read again";

  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"german"), program));
  Application changed;
  ASSERT_TRUE(changed.Init(*item, kSourceRunKey, 0));
  EXPECT_EQ(changed.company, L"Deutsche Tabelle");
  EXPECT_NE(changed.qid, first.qid);
}

TEST(Application, AnItemWhoseCommandNamesNoProgramIsNotReported) {
  testsupport::CapturedLog log;
  Application app;
  EXPECT_FALSE(app.Init(*MakeItem(L"Text", L"HKEY_CURRENT_USER\\X\\Run", L"notepad"), kSourceRunKey, 0));
  EXPECT_EQ(log.count(L"FAILED parse cmdline [notepad]"), 1u);
}

TEST(Application, UpperCaseShortcutTakesItsTargetAndMovedProgramsTheirFolderBelowWindows8) {
  testsupport::ScratchFolder folder;
  ASSERT_TRUE(testing_report::CopyTo(Fixture(L"german"), folder.file(L"Moved.exe")));
  Application app;
  // A shortcut is resolved from its command whatever the state says.
  ASSERT_TRUE(app.Init(*MakeItem(L"TRAY.LNK", folder.path(), Fixture(L"full")), kSourceStartupFolder, 1));
  EXPECT_EQ(app.company, L"Fixture Works Ltd");

  ASSERT_TRUE(app.Init(*MakeItem(L"Moved.exe", folder.path(), Fixture(L"full")), kSourceStartupFolder, 1));
  if (ky::IsWindows8OrGreater()) {
    EXPECT_EQ(app.company, L"Fixture Works Ltd") << "entries stay in place from Windows 8 on";
  } else {
    EXPECT_EQ(app.company, L"Deutsche Tabelle") << "below Windows 8 the file sits at location + name";
    EXPECT_EQ(app.path, folder.file(L"Moved.exe"));
  }
}

TEST(Application, WindowsOwnStartupStateIsConsultedFromWindows8OnOnly) {
  ScratchRunKey key;
  ASSERT_EQ(key.Set(L"Tray", REG_SZ, Fixture(L"full")), ERROR_SUCCESS);
  auto item = MakeItem(L"Tray", key.Location(), Fixture(L"full"));
  HKEY root = nullptr;
  std::wstring approved;
  ASSERT_TRUE(startup::GetItemRegKey(*item, kSourceRunKey, root, approved));
  const BYTE disabled[12] = {3};
  ASSERT_EQ(startup::SetItemRegValue(root, approved, L"Tray", disabled, sizeof(disabled)), ERROR_SUCCESS);

  testsupport::CapturedLog log;
  Application app;
  ASSERT_TRUE(app.Init(*item, kSourceRunKey, 0));
  if (ky::IsWindows8OrGreater()) {
    EXPECT_TRUE(app.disabledBySystem);
    EXPECT_EQ(log.count(L"Win8 says is disabled " + key.Location() + L" Tray"), 1u);
    Application odd;
    ASSERT_TRUE(odd.Init(*MakeItem(L"Odd", L"HKEY_CURRENT_USER\\Software\\RunOnce", Fixture(L"full")), kSourceRunKey, 0));
    EXPECT_EQ(log.count(L"Win8StartupItem::IsEnabled HKEY_CURRENT_USER\\Software\\RunOnce Odd failed 0x1f"), 1u);
  } else {
    EXPECT_FALSE(app.disabledBySystem);
    EXPECT_TRUE(log.entriesFor(L"GetItemRegValue").empty()) << "no StartupApproved value is read below Windows 8";
  }
}

TEST(Application, ExpandPathLogsBothFailuresAndKeepsWhatItConverted) {
  testsupport::CapturedLog log;
  std::wstring out = L"unchanged";
  startup::ExpandPath(nullptr, out, *velora::utils::CEnvironment::Machine());
  EXPECT_EQ(out, L"unchanged");

  startup::ExpandPath(L"C:\\no-such-folder-lumera\\%LUMERA_NOT_SET%.exe", out, *velora::utils::CEnvironment::Machine());
  EXPECT_EQ(out, L"C:\\no-such-folder-lumera\\%LUMERA_NOT_SET%.exe");
  EXPECT_EQ(log.count(L"GetLongPathName C:\\no-such-folder-lumera\\%LUMERA_NOT_SET%.exe failed 0x"), 1u);

  // Longer than any path: refused by both steps and kept as it came.
  const std::wstring huge(40000, L'a');
  startup::ExpandPath(huge.c_str(), out, *velora::utils::CEnvironment::Machine());
  EXPECT_EQ(log.count(L"ExpandEnvironmentStrings aaaa"), 1u);
  EXPECT_EQ(log.count(L"GetLongPathName aaaa"), 1u);
  EXPECT_EQ(out, huge);

  // Short names are converted as GetLongPathNameW converts them, folder and file alike.
  testsupport::ScratchFolder scratch;
  const std::wstring longFolder = scratch.file(L"A Long Folder Name");
  ASSERT_TRUE(::CreateDirectoryW(longFolder.c_str(), nullptr));
  const std::wstring paths[] = {testsupport::WriteFileBytes(longFolder + L"\\First Program.exe"),
                                testsupport::WriteFileBytes(longFolder + L"\\Second Program.exe"), longFolder + L"\\"};
  for (const std::wstring& path : paths) {
    wchar_t shortPath[MAX_PATH] = {};
    wchar_t expected[MAX_PATH] = {};
    ASSERT_NE(::GetShortPathNameW(path.c_str(), shortPath, MAX_PATH), 0u);
    ASSERT_NE(std::wstring(shortPath).find(L'~'), std::wstring::npos) << "a short name to convert";
    ASSERT_NE(::GetLongPathNameW(shortPath, expected, MAX_PATH), 0u);
    startup::ExpandPath(shortPath, out, *velora::utils::CEnvironment::Machine());
    EXPECT_EQ(out, expected) << testing::PrintToString(std::wstring(shortPath));
  }

  ::SetEnvironmentVariableW(L"LUMERA_FIXTURES", testsupport::ExeFolder().c_str());
  startup::ExpandPath(L"%LUMERA_FIXTURES%report_fixture_full.exe", out, *velora::utils::CEnvironment::Machine());
  EXPECT_EQ(out, Fixture(L"full"));
}

}  // namespace
