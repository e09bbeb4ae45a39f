// Host plug-ins of lumerahost.exe: objects other plug-ins reach by name through the
// component manager. Each lives in host/plugins/<name>.cpp and registers itself with
// LUMERA_HOST_PLUGIN; it is created on the first GetPlugin of its name and destroyed when
// the host shuts down, after every module object is gone.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "host_config.h"
#include "lumera/interface_ids.h"
#include "lumera/ky_base.h"

namespace host {

// What a host plug-in may use of the host.
struct HostContext {
  const HostConfig& config;
  IServMain* servMain;
};

class HostPlugin {
 public:
  virtual ~HostPlugin() = default;
  // The interface for `iid`, or null when this plug-in does not answer it.
  virtual void* GetInterface(const GUID& iid) = 0;
  // Called once before destruction, while every other host plug-in still exists; must end
  // every thread the plug-in started.
  virtual void Shutdown() {}
};

// A host plug-in that is itself the interface `I` it is reached by: it answers `pluginId`,
// IServPlugin and IKyBaseInterface, and its lifecycle lives in its constructor and Shutdown,
// so the four lifecycle slots have nothing to do.
template <class I>
class InterfacePlugin : public HostPlugin, public I {
 public:
  explicit InterfacePlugin(const GUID& pluginId) : pluginId_(pluginId) {}
  void* GetInterface(const GUID& iid) override {
    return KyInterfaceFor<I>(this, iid, {pluginId_, lumera::ids::IServPlugin, lumera::ids::IKyBaseInterface});
  }
  std::uint32_t Init(IServMain*) override { return 0; }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }

 private:
  GUID pluginId_;
};

using HostPluginMaker = std::unique_ptr<HostPlugin> (*)(HostContext& context);

// Registers a maker under a name compared without regard to case. Returns true.
bool RegisterHostPlugin(const wchar_t* name, HostPluginMaker maker);

}  // namespace host

#define LUMERA_HOST_PLUGIN_CONCAT2(a, b) a##b
#define LUMERA_HOST_PLUGIN_CONCAT(a, b) LUMERA_HOST_PLUGIN_CONCAT2(a, b)
#define LUMERA_HOST_PLUGIN(name, maker) \
  static const bool LUMERA_HOST_PLUGIN_CONCAT(kRegistered_, __LINE__) = ::host::RegisterHostPlugin(name, maker)
