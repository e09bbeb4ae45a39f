// AppAgentDP.dll's seven exports over the agent store.
#include <windows.h>

#include <new>
#include <string>
#include <vector>

#include "agent_store.h"
#include "lumera/appagentdp.h"

namespace {

using appagentdp::AgentTransaction;

class NameList final : public appagentdp::IAppNameList {
 public:
  explicit NameList(std::vector<std::wstring> names) : names_(std::move(names)) {}
  std::uint32_t Count() const override { return static_cast<std::uint32_t>(names_.size()); }
  const wchar_t* Name(std::uint32_t index) const override {
    return index < names_.size() ? names_[index].c_str() : nullptr;
  }
  void Release() override { delete this; }

 private:
  std::vector<std::wstring> names_;
};

template <class Body>
std::uint32_t Boundary(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return ERROR_OUTOFMEMORY;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

AgentTransaction* AsTransaction(appagentdp::Transaction* transaction) {
  return reinterpret_cast<AgentTransaction*>(transaction);
}

}  // namespace

extern "C" {

std::uint32_t __cdecl AppAgentDP_Init(const wchar_t* agentPath) {
  return Boundary([&]() -> std::uint32_t {
    if (agentPath == nullptr) return ERROR_INVALID_PARAMETER;
    return appagentdp::Store().Init(agentPath);
  });
}

std::uint32_t __cdecl AppAgentDP_GetApps(appagentdp::IAppNameList** apps) {
  return Boundary([&]() -> std::uint32_t {
    if (apps == nullptr) return ERROR_INVALID_PARAMETER;
    *apps = nullptr;
    std::vector<std::wstring> names;
    const std::uint32_t result = appagentdp::Store().Apps(names);
    if (result != 0) return result;
    *apps = new NameList(std::move(names));
    return 0;
  });
}

std::uint32_t __cdecl AppAgentDP_RemApp(const wchar_t* app) {
  return Boundary([&]() -> std::uint32_t {
    if (!appagentdp::IsPlainName(app)) return ERROR_INVALID_PARAMETER;
    return appagentdp::Store().Remove(app);
  });
}

std::uint32_t __cdecl AppAgentDP_BeginTransaction(const wchar_t* app, appagentdp::Transaction** transaction) {
  return Boundary([&]() -> std::uint32_t {
    if (transaction == nullptr) return ERROR_INVALID_PARAMETER;
    *transaction = nullptr;
    if (!appagentdp::IsPlainName(app)) return ERROR_INVALID_PARAMETER;
    const std::wstring folder = appagentdp::Store().AppFolder(app);
    if (folder.empty()) return ERROR_NOT_READY;
    AgentTransaction* opened = nullptr;
    const std::uint32_t result = AgentTransaction::Begin(folder, appagentdp::kLockWaitMs, &opened);
    *transaction = reinterpret_cast<appagentdp::Transaction*>(opened);
    return result;
  });
}

std::uint32_t __cdecl AppAgentDP_Get(appagentdp::Transaction* transaction, const wchar_t* name, const wchar_t** value) {
  return Boundary([&]() -> std::uint32_t {
    if (transaction == nullptr || value == nullptr || !appagentdp::IsPlainName(name)) return ERROR_INVALID_PARAMETER;
    return AsTransaction(transaction)->Get(name, value);
  });
}

std::uint32_t __cdecl AppAgentDP_Set(appagentdp::Transaction* transaction, const wchar_t* name, const wchar_t* value) {
  return Boundary([&]() -> std::uint32_t {
    if (transaction == nullptr || value == nullptr || !appagentdp::IsPlainName(name)) return ERROR_INVALID_PARAMETER;
    return AsTransaction(transaction)->Set(name, value);
  });
}

std::uint32_t __cdecl AppAgentDP_EndTransaction(appagentdp::Transaction* transaction) {
  return Boundary([&]() -> std::uint32_t {
    if (transaction == nullptr) return ERROR_INVALID_PARAMETER;
    AgentTransaction* owned = AsTransaction(transaction);
    const std::uint32_t result = owned->Commit();
    delete owned;
    return result;
  });
}

}  // extern "C"
