// "connserver" and "connclient": the named-pipe connector's two sides, pipelink.dll's objects
// of the same names.
#include "host_plugin.h"
#include "lumera/interface_ids.h"
#include "lumera_dev/service_account.h"
#include "plugins/pipelink_object.h"

namespace host {
namespace {

class ConnectorPlugin final : public HostPlugin {
 public:
  ConnectorPlugin(const wchar_t* name, const GUID& iid) : iid_(iid), object_(name, iid) {}
  bool Created() const { return object_.Object() != nullptr; }
  // The client is initialised and started here so that users of the plug-in can connect at once.
  bool StartClient() const {
    auto* client = static_cast<pipelink::IConnClient*>(object_.Object());
    return client->Init(0) == 0 && client->Start() == 0;
  }

  void* GetInterface(const GUID& iid) override {
    return KyInterfaceFor<void>(object_.Object(), iid, {iid_, lumera::ids::IKyBaseInterface});
  }
  void Shutdown() override { object_.Destroy(); }

 private:
  GUID iid_;
  PipelinkObject object_;
};

// The host's pipes are the service's: under Wine, where every process runs as one account, the
// process that serves them stands for LocalSystem to the clients' check (nothing elsewhere).
class ServerPlugin final : public HostPlugin {
 public:
  ServerPlugin() : connector_(L"connserver", lumera::ids::PipeLinkServer) {}
  bool Created() const { return connector_.Created(); }
  void* GetInterface(const GUID& iid) override { return connector_.GetInterface(iid); }
  void Shutdown() override { connector_.Shutdown(); }

 private:
  lumera::dev::LocalSystemStandIn serviceAccount_;
  ConnectorPlugin connector_;
};

std::unique_ptr<HostPlugin> MakeServer(HostContext&) {
  auto plugin = std::make_unique<ServerPlugin>();
  if (!plugin->Created()) return nullptr;
  return plugin;
}

std::unique_ptr<HostPlugin> MakeClient(HostContext&) {
  auto plugin = std::make_unique<ConnectorPlugin>(L"connclient", lumera::ids::PipeLinkClient);
  if (!plugin->Created() || !plugin->StartClient()) return nullptr;
  return plugin;
}

}  // namespace
}  // namespace host

LUMERA_HOST_PLUGIN(L"connserver", &host::MakeServer);
LUMERA_HOST_PLUGIN(L"connclient", &host::MakeClient);
