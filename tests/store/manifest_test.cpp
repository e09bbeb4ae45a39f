// Store startup tasks found in package manifests: one item per declared task, with the
// executable it starts; packages whose manifest cannot be read are skipped with a log line.
#include <gtest/gtest.h>

#include "startup/store_apps_enumerator.h"
#include "store_scratch.h"
#include "support/captured_log.h"

namespace {

using testing_store::Manifest;
using testing_store::StagedPackage;
using testing_store::Uap5Application;

constexpr wchar_t kPath[] = L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData";

std::vector<startup::MicrosoftStoreTask> TasksOf(std::vector<const StagedPackage*> packages) {
  auto enumerator = testing_store::EnumeratorOf(std::move(packages));
  std::vector<startup::MicrosoftStoreTask> tasks;
  EXPECT_EQ(enumerator.GetStoreTasks(kPath, tasks), 0u);
  return tasks;
}

TEST(StoreManifest, Uap5AndDesktopTasksGiveOneItemEachWithTheirExecutable) {
  StagedPackage uap5;
  uap5.WriteManifest(Manifest(Uap5Application("App", "ExampleTerminal.exe", "StartTerminalOnLoginTask")));
  StagedPackage desktop;
  desktop.WriteManifest(Manifest(
      "    <Application Id=\"App\" Executable=\"Main.exe\" EntryPoint=\"Windows.FullTrustApplication\">\n"
      "      <Extensions>\n"
      "        <desktop:Extension Category=\"windows.startupTask\" Executable=\"bin\\Tray.exe\"\n"
      "                           EntryPoint=\"Windows.FullTrustApplication\">\n"
      "          <desktop:StartupTask TaskId=\"TrayTask\" Enabled=\"true\" DisplayName=\"Tray\"/>\n"
      "        </desktop:Extension>\n"
      "      </Extensions>\n"
      "    </Application>\n"));

  const auto tasks = TasksOf({&uap5, &desktop});
  ASSERT_EQ(tasks.size(), 2u);
  const startup::StartupItem& first = *tasks[0].item;
  EXPECT_EQ(first.name, L"StartTerminalOnLoginTask");
  EXPECT_EQ(first.path, uap5.Folder() + L"\\ExampleTerminal.exe");
  EXPECT_EQ(first.location, L"HKEY_USERS\\" + std::wstring(kPath) + L"\\" + uap5.Family());
  EXPECT_EQ(first.isUser, 1);
  EXPECT_FALSE(tasks[0].manifestEnabled);
  EXPECT_EQ(tasks[0].familyName, uap5.Family());
  EXPECT_EQ(tasks[0].applicationId, L"App") << "activation names the app as <family>!<Application Id>";
  EXPECT_EQ(tasks[0].packageFullName, uap5.FullName());
  EXPECT_EQ(tasks[0].displayName, L"Example Terminal") << "taken from the manifest when the repository has none";
  EXPECT_EQ(tasks[0].publisherDisplayName, L"Example Corporation");

  EXPECT_EQ(tasks[1].item->name, L"TrayTask");
  EXPECT_EQ(tasks[1].item->path, desktop.Folder() + L"\\bin\\Tray.exe") << "the extension's own executable";
  EXPECT_TRUE(tasks[1].manifestEnabled);
}

TEST(StoreManifest, OnlyApplicationsThatDeclareATaskGiveItems) {
  StagedPackage package;
  package.WriteManifest(Manifest(
      "    <Application Id=\"Plain\" Executable=\"Plain.exe\" EntryPoint=\"Windows.FullTrustApplication\">\n"
      "      <Extensions>\n"
      "        <uap5:Extension Category=\"windows.appExecutionAlias\">\n"
      "          <uap5:StartupTask TaskId=\"NotAStartupExtension\" Enabled=\"true\"/>\n"
      "        </uap5:Extension>\n"
      "        <uap:Extension Category=\"windows.startupTask\">\n"
      "          <uap:StartupTask TaskId=\"WrongNamespace\" Enabled=\"true\"/>\n"
      "        </uap:Extension>\n"
      "      </Extensions>\n"
      "    </Application>\n" +
      Uap5Application("Second", "sub\\Second.exe", "SecondTask", "true") +
      Uap5Application("Escaping", "..\\..\\Windows\\evil.exe", "EscapingTask") +
      Uap5Application("Absolute", "C:\\Windows\\evil.exe", "AbsoluteTask")));

  const auto tasks = TasksOf({&package});
  ASSERT_EQ(tasks.size(), 1u) << "only the second application declares a usable task";
  EXPECT_EQ(tasks[0].item->name, L"SecondTask");
  EXPECT_EQ(tasks[0].item->path, package.Folder() + L"\\sub\\Second.exe");
}

TEST(StoreManifest, PackagesWithoutAReadableManifestAreSkippedWithALogLine) {
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  StagedPackage missing;
  StagedPackage broken;
  broken.WriteManifest(Manifest(Uap5Application("App", "App.exe", "BrokenTask")).substr(0, 400));
  StagedPackage deep;
  std::string nested;
  for (int i = 0; i < 300; ++i) nested += "<Extensions>";
  for (int i = 0; i < 300; ++i) nested += "</Extensions>";
  deep.WriteManifest(Manifest(Uap5Application("App", "App.exe", "DeepTask") + nested));
  StagedPackage good;
  good.WriteManifest(Manifest(Uap5Application("App", "App.exe", "GoodTask")));

  auto enumerator = testing_store::EnumeratorOf({&missing, &broken, &deep, &good});
  startup::StartupItemList items;
  ASSERT_EQ(enumerator.GetStartupApps(kPath, items), 0u);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0]->name, L"GoodTask");
  for (const StagedPackage* skipped : {&missing, &broken, &deep}) {
    EXPECT_TRUE(log.contains(L"Failed read manifest of " + skipped->FullName())) << testing::PrintToString(skipped->FullName());
  }
  EXPECT_TRUE(log.contains(L"0xc00cee81")) << "the deep one is refused by the depth bound";
}

TEST(StoreManifest, AFailingPackageListListsNothing) {
  startup::MicrosoftStoreAppsEnumerator enumerator(testing_store::UserSid(),
                                                   [](const std::wstring&, std::vector<MicrosoftStoreApp>&) { return std::uint32_t{1157}; });
  startup::StartupItemList items;
  EXPECT_EQ(enumerator.GetStartupApps(kPath, items), 1157u);
  EXPECT_TRUE(items.empty());
  EXPECT_EQ(enumerator.GetSourceKind(), startup::kSourceStoreApp);
}

}  // namespace
