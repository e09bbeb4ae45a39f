#include "plugin/sibling_loader.h"

#include <shlwapi.h>

#include <mutex>
#include <vector>

#include "common/log.h"
#include "common/unique_handle.h"
#include "lumera/interface_ids.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace plugin {
namespace {

constexpr wchar_t kLibraryName[] = L"hostconfig.dll";
constexpr wchar_t kObjectName[] = L"productinfo";

struct ProductInfoSlot {
  ky::unique_module library;
  KyCreateObjectFn create = nullptr;
  KyDestroyObjectFn destroy = nullptr;
  IKyBaseInterface* object = nullptr;
  IProductInfo* info = nullptr;

  // Stop, UnInit, destroy, free: the order a half-made object is taken apart in, too.
  void Reset() {
    if (object != nullptr) {
      if (auto* plugin = static_cast<IServPlugin*>(object->GetInterface(lumera::ids::IServPlugin))) {
        plugin->Stop();
        plugin->UnInit();
      }
      if (destroy != nullptr) destroy(kObjectName, object);
    }
    *this = ProductInfoSlot{};  // the library goes last, after its object
  }
};

std::mutex g_lock;
ProductInfoSlot g_slot;

std::uint32_t LastErrorOr632() {
  const DWORD error = ::GetLastError();
  return error != 0 ? error : kErrorProductInfo;
}

std::uint32_t Load(ProductInfoSlot& slot) {
  KY_TRACE(L"plugin::LoadProductInfo");
  std::vector<wchar_t> path(MAX_PATH + 1, L'\0');
  ::GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path.data(), MAX_PATH);
  ::PathRemoveFileSpecW(path.data());
  ::PathAppendW(path.data(), kLibraryName);

  ::SetLastError(0);
  slot.library.reset(::LoadLibraryW(path.data()));
  if (!slot.library && !::PathIsRelativeW(path.data())) {
    slot.library.reset(::LoadLibraryExW(path.data(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  }
  if (!slot.library) {
    const std::uint32_t error = LastErrorOr632();
    KY_LOG(logging::kLevelWarning, L"LoadLibrary %s failed 0x%x", path.data(), error);
    return error;
  }
  slot.create = reinterpret_cast<KyCreateObjectFn>(reinterpret_cast<void*>(::GetProcAddress(slot.library.get(), "KyCreateObject")));
  slot.destroy = reinterpret_cast<KyDestroyObjectFn>(reinterpret_cast<void*>(::GetProcAddress(slot.library.get(), "KyDestroyObject")));
  if (slot.create == nullptr || slot.destroy == nullptr) {
    const std::uint32_t error = LastErrorOr632();
    KY_LOG(logging::kLevelWarning, L"GetProcAddress in %s failed 0x%x", path.data(), error);
    return error;
  }
  void* object = nullptr;
  ::SetLastError(0);
  std::uint32_t result = slot.create(kObjectName, &lumera::ids::IKyBaseInterface, &object);
  slot.object = static_cast<IKyBaseInterface*>(object);
  if (result != 0 || slot.object == nullptr) {
    const std::uint32_t error = LastErrorOr632();
    KY_LOG(logging::kLevelWarning, L"KyCreateObject %s failed 0x%x (error 0x%x)", kObjectName, result, error);
    return error;
  }
  slot.info = static_cast<IProductInfo*>(slot.object->GetInterface(lumera::ids::HostConfigProductInfo));
  if (slot.info == nullptr) {
    KY_LOG(logging::kLevelWarning, L"GetInterface of %s failed 0x%x", kObjectName, kErrorProductInfo);
    return kErrorProductInfo;
  }
  ::SetLastError(0);
  if (slot.info->Init(nullptr) != 0 || slot.info->Start() != 0) {
    const std::uint32_t error = LastErrorOr632();
    KY_LOG(logging::kLevelWarning, L"%s Init/Start failed 0x%x", kObjectName, error);
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
