// One owning type per kind of Windows handle: closes exactly once, movable, never copied.
#pragma once

#include <windows.h>
#include <winsvc.h>

#include <utility>

namespace ky {

template <class Traits>
class unique_any {
 public:
  using pointer = typename Traits::type;

  unique_any() noexcept = default;
  explicit unique_any(pointer value) noexcept : value_(value) {}
  unique_any(const unique_any&) = delete;
  unique_any& operator=(const unique_any&) = delete;
  unique_any(unique_any&& other) noexcept : value_(other.release()) {}
  unique_any& operator=(unique_any&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~unique_any() { reset(); }

  pointer get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != Traits::invalid(); }
  bool valid() const noexcept { return value_ != Traits::invalid(); }

  // Gives up ownership without closing.
  pointer release() noexcept { return std::exchange(value_, Traits::invalid()); }
  void reset(pointer value = Traits::invalid()) noexcept {
    pointer old = std::exchange(value_, value);
    if (old != Traits::invalid()) Traits::close(old);
  }
  // For out-parameters of APIs that create a handle; closes any current one first.
  pointer* put() noexcept {
    reset();
    return &value_;
  }

 private:
  pointer value_ = Traits::invalid();
};

struct HandleTraits {
  using type = HANDLE;
  static type invalid() noexcept { return nullptr; }
  static void close(type h) noexcept { ::CloseHandle(h); }
};
struct FileHandleTraits {
  using type = HANDLE;
  static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void close(type h) noexcept { ::CloseHandle(h); }
};
struct RegKeyTraits {
  using type = HKEY;
  static type invalid() noexcept { return nullptr; }
  static void close(type h) noexcept { ::RegCloseKey(h); }
};
struct ModuleTraits {
  using type = HMODULE;
  static type invalid() noexcept { return nullptr; }
  static void close(type h) noexcept { ::FreeLibrary(h); }
};
struct FindTraits {
  using type = HANDLE;
  static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void close(type h) noexcept { ::FindClose(h); }
};
struct LocalMemTraits {
  using type = HLOCAL;
  static type invalid() noexcept { return nullptr; }
  static void close(type h) noexcept { ::LocalFree(h); }
};

struct ServiceHandleTraits {
  using type = SC_HANDLE;
  static type invalid() noexcept { return nullptr; }
  static void close(type h) noexcept { ::CloseServiceHandle(h); }
};

using unique_handle = unique_any<HandleTraits>;       // events, threads, processes, semaphores
using unique_file = unique_any<FileHandleTraits>;     // CreateFileW, CreateNamedPipeW
using unique_hkey = unique_any<RegKeyTraits>;
using unique_module = unique_any<ModuleTraits>;
using unique_find = unique_any<FindTraits>;
using unique_local = unique_any<LocalMemTraits>;
using unique_schandle = unique_any<ServiceHandleTraits>;

// A CRITICAL_SECTION with its lifetime and a scoped holder.
class CriticalSection {
 public:
  CriticalSection() noexcept { ::InitializeCriticalSection(&cs_); }
  ~CriticalSection() { ::DeleteCriticalSection(&cs_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;
  void lock() noexcept { ::EnterCriticalSection(&cs_); }
  void unlock() noexcept { ::LeaveCriticalSection(&cs_); }

 private:
  CRITICAL_SECTION cs_;
};

}  // namespace ky
