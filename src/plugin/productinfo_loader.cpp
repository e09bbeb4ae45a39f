#include "plugin/productinfo_loader.h"

#include <mutex>

#include "common/log.h"
#include "common/module_library.h"
#include "lumera/interface_ids.h"

namespace plugin {
namespace {

constexpr wchar_t kLibraryName[] = L"hostconfig.dll";

struct ProductInfoSlot {
  ky::KyFactoryLibrary library;
  IKyBaseInterface* object = nullptr;
  IProductInfo* info = nullptr;

  // Stop, UnInit, destroy, free: the order a half-made object is taken apart in, too.
  void Reset() {
    if (object != nullptr) {
      if (auto* plugin = static_cast<IServPlugin*>(object->GetInterface(lumera::ids::IServPlugin))) {
        plugin->Stop();
        plugin->UnInit();
      }
      library.Destroy(lumera::kProductInfoName, object);
    }
    object = nullptr;
    info = nullptr;
    library.Free();  // the library goes last, after its object
  }
};

std::mutex g_lock;
ProductInfoSlot g_slot;

std::uint32_t Load(ProductInfoSlot& slot) {
  KY_TRACE(L"plugin::LoadProductInfo");
  const std::wstring path = ky::ThisModuleFolder() + kLibraryName;
  const char* missing = nullptr;
  if (slot.library.Load(path, &missing) != 0) {
    // The failing call's own last error is still set; 632 stands in when it left none.
    const std::uint32_t error = ky::LastErrorOr(kErrorProductInfo);
    if (missing != nullptr) {
      KY_LOG(logging::kLevelWarning, L"GetProcAddress in %s failed 0x%x", path.c_str(), error);
    } else {
      KY_LOG(logging::kLevelWarning, L"LoadLibrary %s failed 0x%x", path.c_str(), error);
    }
    return error;
  }
  void* object = nullptr;
  ::SetLastError(0);
  std::uint32_t result = slot.library.Create(lumera::kProductInfoName, lumera::ids::IKyBaseInterface, &object);
  slot.object = static_cast<IKyBaseInterface*>(object);
  if (result != 0 || slot.object == nullptr) {
    const std::uint32_t error = ky::LastErrorOr(kErrorProductInfo);
    KY_LOG(logging::kLevelWarning, L"KyCreateObject %s failed 0x%x (error 0x%x)", lumera::kProductInfoName, result, error);
    return error;
  }
  slot.info = static_cast<IProductInfo*>(slot.object->GetInterface(lumera::ids::HostConfigProductInfo));
  if (slot.info == nullptr) {
    KY_LOG(logging::kLevelWarning, L"GetInterface of %s failed 0x%x", lumera::kProductInfoName, kErrorProductInfo);
    return kErrorProductInfo;
  }
  ::SetLastError(0);
  if (slot.info->Init(nullptr) != 0 || slot.info->Start() != 0) {
    const std::uint32_t error = ky::LastErrorOr(kErrorProductInfo);
    KY_LOG(logging::kLevelWarning, L"%s Init/Start failed 0x%x", lumera::kProductInfoName, error);
    return error;
  }
  return 0;
}

}  // namespace

IProductInfo* AcquireProductInfo(std::uint32_t* error) {
  std::lock_guard hold(g_lock);
  std::uint32_t result = 0;
  if (g_slot.info == nullptr) {
    result = Load(g_slot);
    if (result != 0) g_slot.Reset();
  }
  if (error != nullptr) *error = result;
  return g_slot.info;
}

void ReleaseProductInfo() {
  std::lock_guard hold(g_lock);
  g_slot.Reset();
}

}  // namespace plugin
