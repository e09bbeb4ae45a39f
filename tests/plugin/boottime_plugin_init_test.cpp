// What the boot-time plug-in takes from its host when it starts: the component manager, the
// "LoadUsage" plug-in, and the settings folder from "productinfo" or beside the host.
#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <string>

#include "../boottime/fakes.h"
#include "common/module_library.h"
#include "lumera/productinfo.h"
#include "plugin/boottime_plugin.h"
#include "support/captured_log.h"
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

// A host whose component manager knows only the plug-ins a test gives it, and counts.
class FakeHost final : public IServMain, public IPlgComponentManager {
 public:
  const wchar_t* GetHostName() override { return L"test"; }
  IPlgComponentManager* GetComponentManager() override { return withManager ? this : nullptr; }
  IEventQueue* GetEventQueue() override { return nullptr; }
  std::uint32_t GetPlugin(const wchar_t* name, const GUID&, void** out) override {
    *out = nullptr;
    const std::wstring key = name;
    if (key == L"LoadUsage" && withLoadUsage) *out = static_cast<ILoadUsage*>(&loadUsage);
    if (key == L"productinfo" && withProductInfo) *out = static_cast<IProductInfo*>(&productInfo);
    if (*out == nullptr) return ERROR_FILE_NOT_FOUND;
    ++held[key];
    return 0;
  }
  std::uint32_t ReleasePlugin(const wchar_t* name) override {
    --held[name];
    return 0;
  }

  bool withManager = true;
  bool withLoadUsage = true;
  bool withProductInfo = true;
  testing::FakeLoadUsage loadUsage;
  FakeProductInfo productInfo;
  std::map<std::wstring, int> held;
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
    host.withLoadUsage = false;
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
    host.withProductInfo = c.withProductInfo;
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
