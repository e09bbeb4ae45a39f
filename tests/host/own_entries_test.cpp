// `lumerahost.exe install` from a folder of its own: the machine's Run key starts the delayed-start
// launcher of that folder by its full path, which is recorded as the product's in the agent's data,
// so the entry stays out of `startupctl list`; `uninstall` takes both away.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <string>

#include "picojson.h"
#include "support/programs.h"
#include "support/scratch_folder.h"

namespace {

using testsupport::Narrow;

constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kValue[] = L"LumeraDelayedStart";

std::wstring RunValue() {
  wchar_t text[1024] = {};
  DWORD size = sizeof text;
  const LSTATUS read = ::RegGetValueW(HKEY_LOCAL_MACHINE, kRunKey, kValue, RRF_RT_REG_SZ, nullptr, text, &size);
  return read == ERROR_SUCCESS ? text : L"";
}

std::string JsonPath(const std::wstring& path) { return picojson::value(Narrow(path)).serialize(); }

// Whether `startupctl list --json` run from `folder` shows the launcher's entry.
bool Listed(const std::filesystem::path& folder) {
  const auto run = testsupport::RunProgram(testsupport::Quoted(folder / L"startupctl.exe") + L" list --json", 60000);
  EXPECT_EQ(run.exitCode, 0u) << run.output;
  return run.output.find(Narrow(kValue)) != std::string::npos;
}

TEST(OwnEntries, InstallRegistersTheLauncherByFullPathOutOfTheListsAndUninstallRemovesIt) {
  testsupport::ScratchFolder product;
  testsupport::ScratchFolder agent;
  for (const auto& file : std::filesystem::directory_iterator(testsupport::BinFolder())) {
    const std::wstring name = file.path().filename().wstring();
    if (file.path().extension() == L".dll" || name == L"lumerahost.exe" || name == L"startupctl.exe" ||
        name == L"StartLauncher.exe") {
      std::filesystem::copy_file(file.path(), product.file(name));
    }
  }
  const std::string items = "{\"items\": {\"422:Desktop\": " + JsonPath(agent.path()) + "}}";
  testsupport::WriteFileBytes(product.file(L"hostconfig.json"), items);
  const std::wstring config = testsupport::WriteFileBytes(product.file(L"lumerahost.json"), items);
  const std::wstring host = testsupport::Quoted(product.file(L"lumerahost.exe"));
  (void)testsupport::RunProgram(host + L" uninstall --config " + testsupport::Quoted(config));  // an earlier run's leftover

  const auto installed = testsupport::RunProgram(host + L" install --config " + testsupport::Quoted(config));
  ASSERT_EQ(installed.exitCode, 0u) << installed.output;
  EXPECT_EQ(RunValue(), L"\"" + product.path() + L"StartLauncher.exe\" /delayed");
  const std::string recorded = testsupport::ReadFileBytes(agent.file(L"Lumera\\app_paths"));
  EXPECT_NE(recorded.find(JsonPath(product.file(L"StartLauncher.exe"))), std::string::npos) << recorded;
  EXPECT_FALSE(Listed(product.path())) << "the product's own entry is filtered out";
  EXPECT_TRUE(Listed(testsupport::BinFolder())) << "without the agent's data the same entry shows";

  const auto removed = testsupport::RunProgram(host + L" uninstall --config " + testsupport::Quoted(config));
  EXPECT_EQ(removed.exitCode, 0u) << removed.output;
  EXPECT_EQ(RunValue(), L"");
  EXPECT_FALSE(std::filesystem::exists(agent.file(L"Lumera"))) << "the product's record goes with it";
}

}  // namespace
