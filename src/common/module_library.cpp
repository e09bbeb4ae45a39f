#include "common/module_library.h"

#include <vector>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace ky {
namespace {

// Long enough for any path the loader accepts, \\?\ prefixed ones included.
constexpr DWORD kMaxModulePath = 32768;

// The LOAD_LIBRARY_SEARCH_* flags came with AddDllDirectory (Windows 8, or KB2533623 on 7).
bool SearchFlagsSupported() noexcept {
  static const bool supported = [] {
    HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    return kernel != nullptr && ::GetProcAddress(kernel, "AddDllDirectory") != nullptr;
  }();
  return supported;
}

// System32 with a trailing backslash.
std::wstring SystemFolder() {
  wchar_t folder[MAX_PATH] = {};
  const UINT n = ::GetSystemDirectoryW(folder, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) return {};
  return std::wstring(folder, n) + L"\\";
}

}  // namespace

bool IsAbsolutePath(const std::wstring& path) noexcept {
  const bool drive = path.size() > 2 && path[1] == L':' && (path[2] == L'\\' || path[2] == L'/');
  return drive || path.rfind(L"\\\\", 0) == 0;
}

bool IsBareFileName(const std::wstring& name) noexcept {
  return !name.empty() && name.find_first_of(L"\\/:") == std::wstring::npos && name != L"." && name != L"..";
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

std::wstring SiblingPath(const std::wstring& nameOrPath) {
  return IsBareFileName(nameOrPath) ? ThisModuleFolder() + nameOrPath : nameOrPath;
}

std::uint32_t ModuleLibrary::Load(const std::wstring& pathOrSystemName) {
  Free();
  // A service that let the standard search order pick a library would run whatever a user
  // put in its current folder or in a PATH folder, as LocalSystem.
  const bool system = IsBareFileName(pathOrSystemName);
  if (!system && !IsAbsolutePath(pathOrSystemName)) return ERROR_INVALID_PARAMETER;
  std::wstring target = pathOrSystemName;
  for (wchar_t& c : target) {
    if (c == L'/') c = L'\\';
  }
  ::SetLastError(0);
  if (SearchFlagsSupported()) {
    const DWORD flags = system ? LOAD_LIBRARY_SEARCH_SYSTEM32 : LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32;
    module_.reset(::LoadLibraryExW(target.c_str(), nullptr, flags));
  } else {
    // Windows 7 without KB2533623 knows no search flags: the file is still named by full path.
    if (system) target = SystemFolder() + target;
    module_.reset(::LoadLibraryExW(target.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
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

std::uint32_t KyFactoryLibrary::Load(const std::wstring& path, const char** firstMissing) {
  Free();
  if (firstMissing != nullptr) *firstMissing = nullptr;
  if (const std::uint32_t loaded = library_.Load(path); loaded != 0) return loaded;
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
