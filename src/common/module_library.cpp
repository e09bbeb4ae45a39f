#include "common/module_library.h"

#include <vector>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace ky {
namespace {

// Long enough for any path the loader accepts, \\?\ prefixed ones included.
constexpr DWORD kMaxModulePath = 32768;

}  // namespace

bool IsAbsolutePath(const std::wstring& path) noexcept {
  const bool drive = path.size() > 2 && path[1] == L':' && (path[2] == L'\\' || path[2] == L'/');
  return drive || path.rfind(L"\\\\", 0) == 0;
}

HMODULE ThisModule() noexcept { return reinterpret_cast<HMODULE>(&__ImageBase); }

std::wstring ModuleFolder(HMODULE module) {
  std::vector<wchar_t> path(kMaxModulePath, L'\0');
  const DWORD n = ::GetModuleFileNameW(module, path.data(), kMaxModulePath);
  if (n == 0 || n >= kMaxModulePath) return {};
  std::wstring folder(path.data(), n);
  const std::size_t slash = folder.find_last_of(L"\\/");
  folder.resize(slash == std::wstring::npos ? 0 : slash + 1);
  return folder;
}

std::wstring ThisModuleFolder() { return ModuleFolder(ThisModule()); }

std::uint32_t ModuleLibrary::Load(const std::wstring& nameOrPath) {
  Free();
  ::SetLastError(0);
  module_.reset(::LoadLibraryW(nameOrPath.c_str()));
  if (!module_ && IsAbsolutePath(nameOrPath)) {
    module_.reset(::LoadLibraryExW(nameOrPath.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  }
  return module_ ? 0 : LastErrorOr(ERROR_MOD_NOT_FOUND);
}

std::uint32_t ModuleLibrary::Bind(std::initializer_list<Binding> bindings, const char** firstMissing) const noexcept {
  if (firstMissing != nullptr) *firstMissing = nullptr;
  if (!module_) return ERROR_INVALID_HANDLE;
  constexpr std::size_t kMaxBindings = 64;
  void (*found[kMaxBindings])() = {};
  if (bindings.size() > kMaxBindings) return ERROR_INVALID_PARAMETER;
  std::size_t i = 0;
  for (const Binding& binding : bindings) {
    found[i] = reinterpret_cast<void (*)()>(reinterpret_cast<void*>(::GetProcAddress(module_.get(), binding.name)));
    if (found[i] == nullptr) {
      if (firstMissing != nullptr) *firstMissing = binding.name;
      return ERROR_PROC_NOT_FOUND;
    }
    ++i;
  }
  i = 0;
  for (const Binding& binding : bindings) *binding.slot = found[i++];
  return 0;
}

std::uint32_t KyFactoryLibrary::Load(const std::wstring& nameOrPath, const char** firstMissing) {
  Free();
  if (firstMissing != nullptr) *firstMissing = nullptr;
  if (const std::uint32_t loaded = library_.Load(nameOrPath); loaded != 0) return loaded;
  KyCreateObjectFn create = nullptr;
  KyDestroyObjectFn destroy = nullptr;
  const std::uint32_t bound =
      library_.Bind({BindAs("KyCreateObject", create), BindAs("KyDestroyObject", destroy)}, firstMissing);
  if (bound != 0) {
    library_.Free();
    return bound;
  }
  create_ = create;
  destroy_ = destroy;
  return 0;
}

void KyFactoryLibrary::Free() noexcept {
  create_ = nullptr;
  destroy_ = nullptr;
  library_.Free();
}

std::uint32_t KyFactoryLibrary::Create(const wchar_t* name, const GUID& iid, void** out) const {
  if (create_ == nullptr) return ERROR_INVALID_DATA;
  return create_(name, &iid, out);
}

void KyFactoryLibrary::Destroy(const wchar_t* name, void* object) const {
  if (destroy_ != nullptr && object != nullptr) destroy_(name, object);
}

}  // namespace ky
