// The host's IServMain and IPlgComponentManager. Plug-ins are made on first request and
// counted per name, so an unbalanced ReleasePlugin is logged instead of freeing early.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "event_queue.h"
#include "host_plugin.h"
#include "lumera/ky_base.h"

namespace host {

class ComponentManager final : public IServMain, public IPlgComponentManager {
 public:
  explicit ComponentManager(const HostConfig& config);
  ~ComponentManager();
  ComponentManager(const ComponentManager&) = delete;
  ComponentManager& operator=(const ComponentManager&) = delete;

  // IServMain
  const wchar_t* GetHostName() override { return L"lumerahost"; }
  IPlgComponentManager* GetComponentManager() override { return this; }
  IEventQueue* GetEventQueue() override { return &eventQueue_; }

  // IPlgComponentManager
  std::uint32_t GetPlugin(const wchar_t* name, const GUID& iid, void** out) override;
  std::uint32_t ReleasePlugin(const wchar_t* name) override;

  // Makes an object of the module reachable through GetPlugin under `name` until
  // UnregisterModuleObject; the object must stay alive that long.
  void RegisterModuleObject(const std::wstring& name, IKyBaseInterface* object);
  void UnregisterModuleObject(const std::wstring& name);

  // Shuts every host plug-in down and destroys it; logs names whose gets and releases differ.
  void Shutdown();
  int OutstandingCount(const std::wstring& name);

 private:
  struct Slot {
    std::unique_ptr<HostPlugin> plugin;
    int count = 0;
  };
  static std::wstring Normalise(const wchar_t* name);

  const HostConfig& config_;
  HostContext context_;
  EventQueue eventQueue_;
  // Recursive: a plug-in being made may itself ask for another one.
  std::recursive_mutex lock_;
  std::map<std::wstring, Slot> slots_;
  struct ModuleObject {
    IKyBaseInterface* object = nullptr;
    int count = 0;
  };
  std::map<std::wstring, ModuleObject> moduleObjects_;
};

}  // namespace host
