// "connserver": the named-pipe connector's server side, pipelink.dll's "connserver" object.
#include "host_plugin.h"
#include "lumera/interface_ids.h"
#include "plugins/pipelink_object.h"

namespace host {
namespace {

class ConnServerPlugin final : public HostPlugin {
 public:
  ConnServerPlugin() : object_(L"connserver", lumera::ids::PipeLinkServer) {}
  bool Ready() const { return object_.Object() != nullptr; }

  void* GetInterface(const GUID& iid) override {
    if (KyIsEqualId(iid, lumera::ids::PipeLinkServer) || KyIsEqualId(iid, lumera::ids::IKyBaseInterface)) {
      return object_.Object();
    }
    return nullptr;
  }
  void Shutdown() override { object_.Destroy(); }

 private:
  PipelinkObject object_;
};

std::unique_ptr<HostPlugin> Make(HostContext&) {
  auto plugin = std::make_unique<ConnServerPlugin>();
  if (!plugin->Ready()) return nullptr;
  return plugin;
}

}  // namespace
}  // namespace host

LUMERA_HOST_PLUGIN(L"connserver", &host::Make);
