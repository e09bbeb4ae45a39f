// What the boot-time plug-in takes from its host when it starts: the component manager, the
// "LoadUsage" plug-in, and the settings folder from "productinfo" or beside the host.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "../boottime/fakes.h"
#include "common/module_library.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"
#include "plugin/boottime_plugin.h"
#include "support/captured_log.h"
#include "support/fake_host.h"
#include "support/plugin_stub.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

class FakeProductInfo final : public testsupport::PluginStub<IProductInfo> {
 public:
  const wchar_t* GetItem(std::uint32_t, const wchar_t*) override { return nullptr; }
  const wchar_t* GetFolder(std::uint32_t kind, const wchar_t* name) override {
    return kind == lumera::kFolderKindCommon && std::wstring(name) == L"common" ? common.c_str() : nullptr;
  }
  std::wstring common;
};

// A host offering the two plug-ins the boot-time plug-in asks for.
struct FakeHost final : testsupport::FakeHost {
  FakeHost() {
    missingCode = ERROR_FILE_NOT_FOUND;
    Offer(L"LoadUsage", lumera::ids::LoadUsagePlugin, static_cast<ILoadUsage*>(&loadUsage));
    Offer(L"productinfo", lumera::ids::ProductInfoPlugin, static_cast<IProductInfo*>(&productInfo));
  }
  testing::FakeLoadUsage loadUsage;
  FakeProductInfo productInfo;
};

TEST(BootTimePluginInit, AMissingHostOrPartOfItFailsAndHoldsNothing) {
  testsupport::CapturedLog log;
  {
    CBootTimePlugin plugin;
    EXPECT_EQ(plugin.Init(nullptr), 0xFFFFFFFFu);
    EXPECT_TRUE(log.contains(L"IServMain is null!"));
  }
  {
    FakeHost host;
    host.withManager = false;
    CBootTimePlugin plugin;
    EXPECT_EQ(plugin.Init(&host), 0xFFFFFFFFu);
    EXPECT_TRUE(log.contains(L"IPlgComponentManager is null"));
  }
  {
    FakeHost host;
    host.withheld = {L"LoadUsage"};
    CBootTimePlugin plugin;
    EXPECT_EQ(plugin.Init(&host), static_cast<std::uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(log.contains(L"GetPlugin LoadUsage failed 0x2"));
    DiskSpeed speed;
    EXPECT_EQ(plugin.GetDiskSpeed(&speed), 1u);
  }
  {
    FakeHost host;
    host.productInfo.common = testsupport::ScratchFolder().path();
    CBootTimePlugin plugin;
    ASSERT_EQ(plugin.Init(&host), 0u);
    EXPECT_EQ(host.held[L"LoadUsage"], 1);
    EXPECT_EQ(host.held[L"productinfo"], 0) << "productinfo is given back at once";
    EXPECT_EQ(plugin.UnInit(), 0u);
    EXPECT_EQ(host.held[L"LoadUsage"], 0);
  }
}

TEST(BootTimePluginInit, TheSettingsFolderComesFromProductInfoOrSitsBesideTheHost) {
  testsupport::CapturedLog log;
  testsupport::ScratchFolder scratch;
  struct Case {
    const char* what;
    bool withProductInfo;
    std::wstring common;
    std::wstring expected;
  };
  const std::wstring exeFolder = testsupport::ExeFolder();
  std::wstring noSlash = scratch.path();
  noSlash.pop_back();
  const Case cases[] = {
      {"absolute, with separator", true, scratch.path(), scratch.path() + L"velora\\"},
      {"absolute, without separator", true, noSlash, scratch.path() + L"velora\\"},
      {"relative", true, L"reltest", ky::ThisModuleFolder() + L"reltest\\velora\\"},
      {"empty answer", true, L"", exeFolder + L"settings\\velora\\"},
      {"no productinfo", false, L"", exeFolder + L"settings\\velora\\"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    log.clear();
    FakeHost host;
    if (!c.withProductInfo) host.withheld = {L"productinfo"};
    host.productInfo.common = c.common;
    CBootTimePlugin plugin;
    ASSERT_EQ(plugin.Init(&host), 0u);
    EXPECT_EQ(plugin.SettingsFolder(), c.expected);
    EXPECT_TRUE(log.contains(L"settingsFolderPath=" + c.expected));
    EXPECT_EQ(log.contains(L"Error getting plugin: productinfo"), !c.withProductInfo);
    // Only the last level is made: beside the host there is no "settings" folder to make it in.
    if (c.withProductInfo && !c.common.empty() && c.common != L"reltest") {
      EXPECT_NE(::GetFileAttributesW(c.expected.c_str()), INVALID_FILE_ATTRIBUTES) << "the folder is created";
    }
    EXPECT_EQ(plugin.UnInit(), 0u);
  }
}

TEST(BootTimePluginInit, TheStoredSystemStartIsZeroUnlessTheFileHoldsAWholeNumber) {
  testsupport::CapturedLog log;
  testsupport::ScratchFolder scratch;
  FakeHost host;
  host.productInfo.common = scratch.path();
  CBootTimePlugin plugin;
  ASSERT_EQ(plugin.Init(&host), 0u);
  const std::wstring path = plugin.SettingsFolder() + BootTimeMonitor::kFileName;
  EXPECT_EQ(plugin.GetLastSystemStartTime(), 0) << "no file";
  const std::pair<const char*, std::int64_t> cases[] = {
      {R"({"systemStartTimestamp":"13390000000123"})", 13390000000123},
      {R"({"systemStartTimestamp":"-5"})", -5},
      {R"({"systemStartTimestamp":"9223372036854775807"})", INT64_MAX},
      {R"({"systemStartTimestamp":"9223372036854775808"})", 0},
      {R"({"systemStartTimestamp":"12x"})", 0},
      {R"({"systemStartTimestamp":""})", 0},
      {R"({"bootTime":"5"})", 0},
      {R"(["systemStartTimestamp"])", 0},
      {R"({"systemStartTimestamp":)", 0},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    testsupport::WriteFileBytes(path, text);
    EXPECT_EQ(plugin.GetLastSystemStartTime(), expected);
  }
  EXPECT_EQ(plugin.UnInit(), 0u);
}

}  // namespace
}  // namespace boottime
