// The part of a plug-in that fakes share: any interface asked for is this one, and the life
// cycle does nothing and succeeds.
#pragma once

#include <cstdint>

#include "lumera/ky_base.h"

namespace testsupport {

template <class Interface>
class PluginStub : public Interface {
 public:
  void* GetInterface(const GUID&) override { return this; }
  std::uint32_t Init(IServMain*) override { return 0; }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }
};

// The host's plug-in `name` as its interface, null when the host does not give it.
template <class Interface, class Host>
Interface* GetPlugin(Host& host, const wchar_t* name, const GUID& iid) {
  void* object = nullptr;
  return host.GetPlugin(name, iid, &object) == 0 ? static_cast<Interface*>(object) : nullptr;
}

}  // namespace testsupport
