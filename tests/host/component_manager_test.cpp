// The host's component manager as the module sees it through IServMain.
#include <gtest/gtest.h>

#include "component_manager.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"

namespace {

TEST(ComponentManager, HandsOutHostPluginsByNameWithoutRegardToCaseAndCountsThem) {
  host::HostConfig config;
  config.folders[L"2:common"] = L"C:\\Data";
  host::ComponentManager manager(config);
  IServMain* servMain = &manager;
  IPlgComponentManager* components = servMain->GetComponentManager();
  ASSERT_NE(components, nullptr);

  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(components->GetPlugin(L"productinfo", lumera::ids::ProductInfoPlugin, &first), 0u);
  ASSERT_EQ(components->GetPlugin(L"ProductInfo", lumera::ids::ProductInfoPlugin, &second), 0u);
  EXPECT_EQ(first, second) << "one instance per name";
  EXPECT_STREQ(static_cast<IProductInfo*>(first)->GetFolder(2, L"common"), L"C:\\Data");
  EXPECT_EQ(manager.OutstandingCount(L"productinfo"), 2);

  EXPECT_EQ(components->ReleasePlugin(L"productinfo"), 0u);
  EXPECT_EQ(components->ReleasePlugin(L"PRODUCTINFO"), 0u);
  EXPECT_EQ(components->ReleasePlugin(L"productinfo"), static_cast<std::uint32_t>(ERROR_NOT_FOUND))
      << "a release without a matching get is refused";

  void* out = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(manager.GetPlugin(L"nosuchplugin", lumera::ids::IServPlugin, &out), static_cast<std::uint32_t>(ERROR_NOT_FOUND));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(manager.GetPlugin(L"productinfo", lumera::ids::IBootTime, &out), static_cast<std::uint32_t>(ERROR_NOT_FOUND));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(manager.OutstandingCount(L"productinfo"), 0) << "a refused get is not counted";
}

}  // namespace
