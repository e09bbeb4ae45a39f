// Loading the "productinfo" object out of hostconfig.dll beside the program, against a
// stand-in library whose behaviour each test picks.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "plugin/productinfo_loader.h"
#include "support/scratch_folder.h"

namespace {

class ProductInfoLoader : public ::testing::Test {
 protected:
  void TearDown() override {
    plugin::ReleaseProductInfo();
    ::SetEnvironmentVariableW(L"LUMERA_FAKE_HOSTCONFIG", nullptr);
  }
  static void UseMode(const wchar_t* mode) { ::SetEnvironmentVariableW(L"LUMERA_FAKE_HOSTCONFIG", mode); }

  // The calls the stand-in saw since the last look; empty when it is not loaded.
  static std::wstring Journal() {
    HMODULE library = ::GetModuleHandleW(L"hostconfig.dll");
    if (library == nullptr) return L"";
    using JournalFn = void(__cdecl*)(wchar_t*, std::uint32_t);
    auto journal = reinterpret_cast<JournalFn>(reinterpret_cast<void*>(::GetProcAddress(library, "FakeHostConfigJournal")));
    wchar_t buffer[512] = {};
    journal(buffer, 512);
    return buffer;
  }
};

TEST_F(ProductInfoLoader, CreatesInitialisesWithoutHostAndStartsTheObjectOnce) {
  std::uint32_t error = 99;
  IProductInfo* info = plugin::AcquireProductInfo(&error);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(error, 0u);
  EXPECT_STREQ(info->GetFolder(2, L"common"), L"C:\\Common");
  EXPECT_EQ(plugin::AcquireProductInfo(), info) << "kept in module-wide storage while in use";
  EXPECT_EQ(Journal(), L"create(productinfo);init(null);start;");
  plugin::ReleaseProductInfo();
  EXPECT_EQ(::GetModuleHandleW(L"hostconfig.dll"), nullptr) << "the library is freed on release";
}

TEST_F(ProductInfoLoader, AFailureTakesApartWhatWasMadeAndGivesTheLastErrorOr632WhenThereIsNone) {
  HMODULE keep = ::LoadLibraryW((testsupport::ExeFolder() + L"hostconfig.dll").c_str());  // to read the journal afterwards
  const std::tuple<const wchar_t*, std::uint32_t, const wchar_t*> cases[] = {
      {L"no-interface", 632, L"create(productinfo);stop;uninit;destroy(productinfo);"},
      {L"create-fails", ERROR_ACCESS_DENIED, L"create(productinfo);"},
      {L"create-fails-silently", 632, L"create(productinfo);"},
      {L"start-fails", ERROR_SERVICE_DISABLED, L"create(productinfo);init(null);start;stop;uninit;destroy(productinfo);"}};
  for (const auto& [mode, code, journal] : cases) {
    UseMode(mode);
    std::uint32_t error = 0;
    EXPECT_EQ(plugin::AcquireProductInfo(&error), nullptr) << testing::PrintToString(mode);
    EXPECT_EQ(error, code) << testing::PrintToString(mode);
    EXPECT_EQ(Journal(), journal);
  }
  ::FreeLibrary(keep);
}

TEST_F(ProductInfoLoader, WithoutTheLibraryTheLoaderReportsTheLoadErrorAndLaterRecovers) {
  const std::wstring library = testsupport::ExeFolder() + L"hostconfig.dll";
  const std::wstring parked = library + L".parked";
  ASSERT_TRUE(::MoveFileExW(library.c_str(), parked.c_str(), MOVEFILE_REPLACE_EXISTING));
  std::uint32_t error = 0;
  IProductInfo* info = plugin::AcquireProductInfo(&error);
  ASSERT_TRUE(::MoveFileExW(parked.c_str(), library.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(info, nullptr);
  EXPECT_EQ(error, static_cast<std::uint32_t>(ERROR_MOD_NOT_FOUND));
  EXPECT_NE(plugin::AcquireProductInfo(&error), nullptr) << "nothing stale is cached after a failure";
}

}  // namespace
