#include "boottime/comm/connector_loader.h"

#include "common/log.h"

namespace boottime {
namespace {

constexpr wchar_t kLibraryName[] = L"pipelink.dll";
constexpr wchar_t kObjectName[] = L"connclient";

}  // namespace

CConnectorLibrary::~CConnectorLibrary() { Unload(); }

std::wstring CConnectorLibrary::DefaultPath() { return ky::ThisModuleFolder() + kLibraryName; }

std::uint32_t CConnectorLibrary::Load(const std::wstring& path) {
  KY_TRACE(L"boottime::CConnectorLibrary::Load");
  Unload();
  if (const std::uint32_t loaded = library_.Load(path); loaded != 0) return loaded;
  void* object = nullptr;
  const std::uint32_t created = library_.Create(kObjectName, lumera::ids::PipeLinkClient, &object);
  if (created != 0 || object == nullptr) {
    Unload();
    return created != 0 ? created : ERROR_NOT_FOUND;
  }
  client_ = static_cast<pipelink::IConnClient*>(object);
  return 0;
}

void CConnectorLibrary::Unload() {
  if (client_ != nullptr) library_.Destroy(kObjectName, client_);
  client_ = nullptr;
  library_.Free();
}

}  // namespace boottime
