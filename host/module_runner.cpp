#include "module_runner.h"

#include "common/log.h"
#include "lumera/interface_ids.h"
#include "lumera_dev/staged_identity.h"
#include "wine/process_accounting_shims.h"

namespace host {

ModuleRunner::ModuleRunner(const HostConfig& config, ComponentManager& manager) : config_(config), manager_(manager) {}

ModuleRunner::~ModuleRunner() { Stop(); }

bool ModuleRunner::Start() {
  KY_TRACE(L"host::ModuleRunner::Start");
  const std::wstring path = ky::ThisModuleFolder() + config_.moduleName;
  const char* missing = nullptr;
  if (const std::uint32_t loaded = module_.Load(path, &missing); loaded != 0) {
    if (missing != nullptr) {
      KY_LOG(logging::kLevelError, L"%s lacks KyCreateObject/KyDestroyObject", path.c_str());
    } else {
      KY_LOG(logging::kLevelError, L"LoadLibrary %s failed 0x%x", path.c_str(), loaded);
    }
    return false;
  }
  if (const int redirected = wine::InstallProcessAccounting(module_.Library().get()); redirected > 0) {
    KY_LOG(logging::kLevelInfo, L"process accounting from Linux for %d imports", redirected);
  }
  if (const int redirected = lumera::dev::InstallStagedIdentity(module_.Library().get()); redirected > 0) {
    KY_LOG(logging::kLevelInfo, L"staged identity stand-ins for %d imports", redirected);
  }
  for (const std::wstring& name : config_.objects) {
    Object object{name};
    void* out = nullptr;
    const std::uint32_t created = module_.Create(name.c_str(), lumera::ids::IServPlugin, &out);
    if (created != 0 || out == nullptr) {
      KY_LOG(logging::kLevelError, L"KyCreateObject %s failed %u", name.c_str(), created);
      continue;
    }
    object.plugin = static_cast<IServPlugin*>(out);
    // Later objects reach earlier ones (e.g. "boottimecomm" gets "boottime") through GetPlugin.
    manager_.RegisterModuleObject(name, object.plugin);
    const std::uint32_t init = object.plugin->Init(&manager_);
    object.initialised = true;
    if (init != 0) {
      KY_LOG(logging::kLevelError, L"%s Init failed %u", name.c_str(), init);
    } else {
      const std::uint32_t start = object.plugin->Start();
      object.started = true;
      if (start != 0) KY_LOG(logging::kLevelError, L"%s Start failed %u", name.c_str(), start);
    }
    objects_.push_back(object);
    KY_LOG(logging::kLevelInfo, L"%s created", name.c_str());
  }
  return true;
}

void ModuleRunner::Stop() {
  if (!module_.Loaded()) return;
  KY_TRACE(L"host::ModuleRunner::Stop");
  for (auto it = objects_.rbegin(); it != objects_.rend(); ++it) {
    if (it->started) it->plugin->Stop();
  }
  for (auto it = objects_.rbegin(); it != objects_.rend(); ++it) {
    if (it->initialised) it->plugin->UnInit();
    manager_.UnregisterModuleObject(it->name);
    module_.Destroy(it->name.c_str(), it->plugin);
    KY_LOG(logging::kLevelInfo, L"%s destroyed", it->name.c_str());
  }
  objects_.clear();
  // Host plug-ins may hold callbacks into the module: they go before the module is unloaded.
  manager_.Shutdown();
  module_.Free();
}

}  // namespace host
