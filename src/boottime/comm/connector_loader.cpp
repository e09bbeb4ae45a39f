#include "boottime/comm/connector_loader.h"

#include <vector>

#include "common/log.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace boottime {
namespace {

constexpr wchar_t kLibraryName[] = L"pipelink.dll";
constexpr wchar_t kObjectName[] = L"connclient";
constexpr DWORD kMaxModulePath = 32768;

// Drive-letter or UNC paths; the altered search path is only meaningful for those.
bool IsAbsolute(const std::wstring& path) {
  return (path.size() > 2 && path[1] == L':' && (path[2] == L'\\' || path[2] == L'/')) || path.rfind(L"\\\\", 0) == 0;
}

std::uint32_t LastErrorOr(std::uint32_t fallback) {
  const DWORD error = ::GetLastError();
  return error != 0 ? error : fallback;
}

}  // namespace

CConnectorLibrary::~CConnectorLibrary() { Unload(); }

std::wstring CConnectorLibrary::ModuleFolder() {
  std::vector<wchar_t> path(kMaxModulePath, L'\0');
  const DWORD n = ::GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path.data(), kMaxModulePath - 1);
  std::wstring folder(path.data(), n);
  const std::size_t slash = folder.find_last_of(L'\\');
  folder.resize(slash == std::wstring::npos ? 0 : slash + 1);
  return folder;
}

std::wstring CConnectorLibrary::DefaultPath() { return ModuleFolder() + kLibraryName; }

std::uint32_t CConnectorLibrary::Load(const std::wstring& path) {
  KY_TRACE(L"boottime::CConnectorLibrary::Load");
  Unload();
  ::SetLastError(0);
  library_.reset(::LoadLibraryW(path.c_str()));
  if (!library_ && IsAbsolute(path)) {
    library_.reset(::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  }
  if (!library_) return LastErrorOr(ERROR_MOD_NOT_FOUND);
  auto create = reinterpret_cast<KyCreateObjectFn>(reinterpret_cast<void*>(::GetProcAddress(library_.get(), "KyCreateObject")));
  destroy_ = reinterpret_cast<KyDestroyObjectFn>(reinterpret_cast<void*>(::GetProcAddress(library_.get(), "KyDestroyObject")));
  if (create == nullptr || destroy_ == nullptr) {
    const std::uint32_t error = LastErrorOr(ERROR_PROC_NOT_FOUND);
    Unload();
    return error;
  }
  void* object = nullptr;
  const std::uint32_t created = create(kObjectName, &lumera::ids::PipeLinkClient, &object);
  if (created != 0 || object == nullptr) {
    Unload();
    return created != 0 ? created : ERROR_NOT_FOUND;
  }
  client_ = static_cast<pipelink::IConnClient*>(object);
  return 0;
}

void CConnectorLibrary::Unload() {
  if (client_ != nullptr && destroy_ != nullptr) destroy_(kObjectName, client_);
  client_ = nullptr;
  destroy_ = nullptr;
  library_.reset();
}

}  // namespace boottime
