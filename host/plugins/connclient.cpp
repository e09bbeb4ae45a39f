// "connclient": the named-pipe connector's client side, pipelink.dll's "connclient" object.
#include "host_plugin.h"
#include "lumera/interface_ids.h"
#include "plugins/pipelink_object.h"

namespace host {
namespace {

class ConnClientPlugin final : public HostPlugin {
 public:
  ConnClientPlugin() : object_(L"connclient", lumera::ids::PipeLinkClient) {}
  // Initialised and started here so that users of the plug-in can connect at once.
  bool Ready() const {
    auto* client = static_cast<pipelink::IConnClient*>(object_.Object());
    return client != nullptr && client->Init(0) == 0 && client->Start() == 0;
  }

  void* GetInterface(const GUID& iid) override {
    if (KyIsEqualId(iid, lumera::ids::PipeLinkClient) || KyIsEqualId(iid, lumera::ids::IKyBaseInterface)) {
      return object_.Object();
    }
    return nullptr;
  }
  void Shutdown() override { object_.Destroy(); }

 private:
  PipelinkObject object_;
};

std::unique_ptr<HostPlugin> Make(HostContext&) {
  auto plugin = std::make_unique<ConnClientPlugin>();
  if (!plugin->Ready()) return nullptr;
  return plugin;
}

}  // namespace
}  // namespace host

LUMERA_HOST_PLUGIN(L"connclient", &host::Make);
