// Run-time binding of libraries: one loader, one all-or-nothing binder, one "folder of this
// module", one loader for the KyCreateObject / KyDestroyObject pair of a sibling library.
// Nothing here logs (the logging adapter itself is bound through it): failures come back as
// codes and, for a binding, the first missing name, for the caller to log in its own words.
#pragma once

#include <windows.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <type_traits>

#include "common/unique_handle.h"
#include "lumera/ky_base.h"

namespace ky {

// GetLastError(), or `fallback` when the failing call left none (many Wine stubs do not).
[[nodiscard]] inline std::uint32_t LastErrorOr(std::uint32_t fallback) noexcept {
  const DWORD error = ::GetLastError();
  return error != 0 ? error : fallback;
}

// A FILETIME as one 64-bit count of 100 ns intervals.
[[nodiscard]] constexpr std::uint64_t FileTimeToU64(const FILETIME& time) noexcept {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// Drive-letter ("C:\") or UNC ("\\server") paths.
[[nodiscard]] bool IsAbsolutePath(const std::wstring& path) noexcept;

// A file name with no folder part at all ("Wevtapi.dll"): what the loader takes from System32.
[[nodiscard]] bool IsBareFileName(const std::wstring& name) noexcept;

// The folder of `module` with a trailing backslash, or empty when its name cannot be read.
[[nodiscard]] std::wstring ModuleFolder(HMODULE module);
// The folder of the DLL or EXE that this code is linked into, with a trailing backslash.
[[nodiscard]] std::wstring ThisModuleFolder();
// The module that this code is linked into.
[[nodiscard]] HMODULE ThisModule() noexcept;
// Where a sibling library or program of the product is taken from: a bare file name in the
// folder of the module this code is linked into; anything else (a full path a test or a
// caller chose) as given.
[[nodiscard]] std::wstring SiblingPath(const std::wstring& nameOrPath);

// One function to bind: its exported name and where its address goes. Make it with BindAs,
// whose type check ties the slot to the function's declaration.
struct Binding {
  const char* name;
  void (**slot)();
};

// `slot` must be a function pointer, typically declared `decltype(&::EvtQuery) pfn`.
template <class Fn>
[[nodiscard]] Binding BindAs(const char* name, Fn& slot) noexcept {
  static_assert(std::is_pointer_v<Fn> && std::is_function_v<std::remove_pointer_t<Fn>>,
                "bind into a function pointer");
  return Binding{name, reinterpret_cast<void (**)()>(&slot)};
}

// Binds `function` into `slot`, with the slot's type taken from the function's declaration.
#define KY_BIND_DECLARED(function, slot)                                                    \
  ([&]() {                                                                                  \
    static_assert(std::is_same_v<decltype(&function), std::remove_reference_t<decltype(slot)>>, \
                  "slot type differs from the declaration of " #function);                  \
    return ::ky::BindAs(#function, slot);                                                   \
  }())

// An owned library module.
class ModuleLibrary {
 public:
  ModuleLibrary() = default;
  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;
  ModuleLibrary(ModuleLibrary&&) noexcept = default;
  ModuleLibrary& operator=(ModuleLibrary&&) noexcept = default;

  // Loads a product library by its full path, its dependencies from its own folder and
  // System32; or a Windows library given by bare file name ("Wevtapi.dll") from System32
  // only. Neither the current folder nor PATH is ever searched. Returns 0, or the loader's
  // code (ERROR_MOD_NOT_FOUND when it left none) with nothing loaded; a relative path with a
  // folder part is refused with ERROR_INVALID_PARAMETER. A library already held is freed first.
  [[nodiscard]] std::uint32_t Load(const std::wstring& pathOrSystemName);

  // Resolves every binding, then writes them all; when any name is missing no slot is
  // touched, *firstMissing (if given) names the first one, and the result is
  // ERROR_PROC_NOT_FOUND. Also ERROR_INVALID_HANDLE when nothing is loaded.
  [[nodiscard]] std::uint32_t Bind(std::initializer_list<Binding> bindings,
                                   const char** firstMissing = nullptr) const noexcept;

  // The address of one export, or null.
  template <class Fn>
  [[nodiscard]] Fn Resolve(const char* name) const noexcept {
    return module_ ? reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module_.get(), name))) : nullptr;
  }

  [[nodiscard]] bool Loaded() const noexcept { return module_.valid(); }
  [[nodiscard]] HMODULE get() const noexcept { return module_.get(); }
  void Free() noexcept { module_.reset(); }

 private:
  unique_module module_;
};

// A sibling library's KyCreateObject / KyDestroyObject pair, with the library held for as
// long as the pair is.
class KyFactoryLibrary {
 public:
  KyFactoryLibrary() = default;
  KyFactoryLibrary(const KyFactoryLibrary&) = delete;
  KyFactoryLibrary& operator=(const KyFactoryLibrary&) = delete;

  // Loads the library (as ModuleLibrary::Load) and binds both exports. Returns 0, or the
  // failing call's code with nothing held; *firstMissing names a missing export.
  [[nodiscard]] std::uint32_t Load(const std::wstring& path, const char** firstMissing = nullptr);
  void Free() noexcept;

  // The library's own KyCreateObject; 13 when nothing is loaded.
  [[nodiscard]] std::uint32_t Create(const wchar_t* name, const GUID& iid, void** out) const;
  // The library's own KyDestroyObject; nothing when nothing is loaded or `object` is null.
  void Destroy(const wchar_t* name, void* object) const;

  [[nodiscard]] bool Loaded() const noexcept { return create_ != nullptr; }
  [[nodiscard]] const ModuleLibrary& Library() const noexcept { return library_; }

 private:
  ModuleLibrary library_;
  KyCreateObjectFn create_ = nullptr;
  KyDestroyObjectFn destroy_ = nullptr;
};

}  // namespace ky
