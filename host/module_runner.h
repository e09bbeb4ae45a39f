// Loads LumeraPlg.dll from the host's folder and drives the configured objects through
// KyCreateObject, Init, Start ... Stop, UnInit, KyDestroyObject.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "common/module_library.h"
#include "component_manager.h"
#include "lumera/ky_base.h"

namespace host {

class ModuleRunner {
 public:
  ModuleRunner(const HostConfig& config, ComponentManager& manager);
  ~ModuleRunner();  // stops and destroys whatever is still running
  ModuleRunner(const ModuleRunner&) = delete;
  ModuleRunner& operator=(const ModuleRunner&) = delete;

  // Loads the module and creates, initialises and starts every configured object; an object
  // that fails a step is logged and the others go on. Returns false when the module itself
  // cannot be loaded.
  [[nodiscard]] bool Start();
  // Stop, UnInit and KyDestroyObject for every object, in reverse order of creation.
  void Stop();

 private:
  struct Object {
    std::wstring name;
    IServPlugin* plugin = nullptr;
    bool initialised = false;
    bool started = false;
  };

  const HostConfig& config_;
  ComponentManager& manager_;
  ky::KyFactoryLibrary module_;
  std::vector<Object> objects_;
};

}  // namespace host
