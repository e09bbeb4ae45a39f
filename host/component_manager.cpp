#include "component_manager.h"

#include <algorithm>
#include <cwctype>
#include <vector>

#include "common/guard.h"
#include "common/log.h"

namespace host {
namespace {

struct Registration {
  std::wstring name;
  HostPluginMaker maker;
};

std::vector<Registration>& Registry() {
  static std::vector<Registration> registry;
  return registry;
}

}  // namespace

bool RegisterHostPlugin(const wchar_t* name, HostPluginMaker maker) {
  std::wstring key(name);
  std::transform(key.begin(), key.end(), key.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
  Registry().push_back({key, maker});
  return true;
}

ComponentManager::ComponentManager(const HostConfig& config) : config_(config), context_{config, this} {}

ComponentManager::~ComponentManager() { Shutdown(); }

std::wstring ComponentManager::Normalise(const wchar_t* name) {
  std::wstring key(name);
  std::transform(key.begin(), key.end(), key.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
  return key;
}

std::uint32_t ComponentManager::GetPlugin(const wchar_t* name, const GUID& iid, void** out) {
  KY_TRACE(L"host::ComponentManager::GetPlugin");
  if (out == nullptr) return ERROR_INVALID_DATA;
  *out = nullptr;
  if (name == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"host::ComponentManager::GetPlugin", ky::kGeneralFailure, [&]() -> std::uint32_t {
    const std::wstring key = Normalise(name);
    std::lock_guard hold(lock_);
    if (auto found = moduleObjects_.find(key); found != moduleObjects_.end()) {
      *out = found->second.object->GetInterface(iid);
      if (*out == nullptr) return ERROR_NOT_FOUND;
      ++found->second.count;
      return 0;
    }
    Slot& slot = slots_[key];
    if (!slot.plugin) {
      auto it = std::find_if(Registry().begin(), Registry().end(), [&](const Registration& r) { return r.name == key; });
      if (it == Registry().end()) {
        slots_.erase(key);
        KY_LOG(logging::kLevelWarning, L"no host plug-in named %s", name);
        return ERROR_NOT_FOUND;
      }
      slot.plugin = it->maker(context_);
      if (!slot.plugin) {
        slots_.erase(key);
        KY_LOG(logging::kLevelWarning, L"host plug-in %s could not be created", name);
        return ERROR_GEN_FAILURE;
      }
    }
    *out = slot.plugin->GetInterface(iid);
    if (*out == nullptr) {
      KY_LOG(logging::kLevelWarning, L"host plug-in %s does not answer the interface", name);
      return ERROR_NOT_FOUND;
    }
    ++slot.count;
    return 0;
  });
}

std::uint32_t ComponentManager::ReleasePlugin(const wchar_t* name) {
  KY_TRACE(L"host::ComponentManager::ReleasePlugin");
  if (name == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"host::ComponentManager::ReleasePlugin", ky::kGeneralFailure, [&]() -> std::uint32_t {
    std::lock_guard hold(lock_);
    if (auto found = moduleObjects_.find(Normalise(name)); found != moduleObjects_.end() && found->second.count > 0) {
      --found->second.count;
      return 0;
    }
    auto it = slots_.find(Normalise(name));
    if (it == slots_.end() || it->second.count == 0) {
      KY_LOG(logging::kLevelWarning, L"ReleasePlugin %s without a matching GetPlugin", name);
      return ERROR_NOT_FOUND;
    }
    --it->second.count;
    return 0;
  });
}

void ComponentManager::RegisterModuleObject(const std::wstring& name, IKyBaseInterface* object) {
  std::lock_guard hold(lock_);
  moduleObjects_[Normalise(name.c_str())] = ModuleObject{object, 0};
}

void ComponentManager::UnregisterModuleObject(const std::wstring& name) {
  KY_TRACE(L"host::ComponentManager::UnregisterModuleObject");
  std::lock_guard hold(lock_);
  auto it = moduleObjects_.find(Normalise(name.c_str()));
  if (it == moduleObjects_.end()) return;
  if (it->second.count != 0) KY_LOG(logging::kLevelWarning, L"object %s still held %d time(s)", name.c_str(), it->second.count);
  moduleObjects_.erase(it);
}

int ComponentManager::OutstandingCount(const std::wstring& name) {
  std::lock_guard hold(lock_);
  auto it = slots_.find(Normalise(name.c_str()));
  return it == slots_.end() ? 0 : it->second.count;
}

void ComponentManager::Shutdown() {
  KY_TRACE(L"host::ComponentManager::Shutdown");
  std::map<std::wstring, Slot> slots;
  {
    std::lock_guard hold(lock_);
    slots.swap(slots_);
  }
  for (auto& [name, slot] : slots) {
    if (slot.count != 0) KY_LOG(logging::kLevelWarning, L"plug-in %s still held %d time(s) at shutdown", name.c_str(), slot.count);
    if (slot.plugin) slot.plugin->Shutdown();
  }
  slots.clear();
}

}  // namespace host
