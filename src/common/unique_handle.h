// One owning type per kind of Windows handle: closes exactly once, movable, never copied.
// Each traits class knows every value its kind uses for "no handle", and closing never
// changes the thread's last error, so a failing call can be logged after its owner let go.
#pragma once

#include <windows.h>
#include <winsvc.h>

#include <utility>

#include "common/critical_section.h"

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
  explicit operator bool() const noexcept { return valid(); }
  bool valid() const noexcept { return Traits::is_valid(value_); }

  // Gives up ownership without closing.
  [[nodiscard]] pointer release() noexcept { return std::exchange(value_, Traits::invalid()); }
  // Closes the current handle, if any, keeping the thread's last error as it was.
  void reset(pointer value = Traits::invalid()) noexcept {
    pointer old = std::exchange(value_, value);
    if (Traits::is_valid(old)) {
      const DWORD error = ::GetLastError();
      Traits::close(old);
      ::SetLastError(error);
    }
  }
  // For out-parameters of APIs that create a handle; closes any current one first.
  pointer* put() noexcept {
    reset();
    return &value_;
  }

 private:
  pointer value_ = Traits::invalid();
};

// Kernel objects: some calls fail with null, others with INVALID_HANDLE_VALUE, and -1 is also
// the current-process pseudo-handle, which must never be closed.
struct KernelHandleTraits {
  using type = HANDLE;
  static bool is_valid(type h) noexcept { return h != nullptr && h != INVALID_HANDLE_VALUE; }
  static void close(type h) noexcept { ::CloseHandle(h); }
};
struct HandleTraits : KernelHandleTraits {
  static type invalid() noexcept { return nullptr; }
};
struct FileHandleTraits : KernelHandleTraits {
  static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
};
// A kind whose only "no handle" is null, closed by `Close`.
template <class T, auto Close>
struct NullHandleTraits {
  using type = T;
  static type invalid() noexcept { return nullptr; }
  static bool is_valid(type h) noexcept { return h != nullptr; }
  static void close(type h) noexcept { (void)Close(h); }
};
using RegKeyTraits = NullHandleTraits<HKEY, &::RegCloseKey>;
using ModuleTraits = NullHandleTraits<HMODULE, &::FreeLibrary>;
using LocalMemTraits = NullHandleTraits<HLOCAL, &::LocalFree>;
using ServiceHandleTraits = NullHandleTraits<SC_HANDLE, &::CloseServiceHandle>;
struct FindTraits {
  using type = HANDLE;
  static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static bool is_valid(type h) noexcept { return h != nullptr && h != INVALID_HANDLE_VALUE; }
  static void close(type h) noexcept { ::FindClose(h); }
};

using unique_handle = unique_any<HandleTraits>;       // events, threads, processes, semaphores
using unique_file = unique_any<FileHandleTraits>;     // CreateFileW, CreateNamedPipeW
using unique_hkey = unique_any<RegKeyTraits>;
using unique_module = unique_any<ModuleTraits>;
using unique_find = unique_any<FindTraits>;
using unique_local = unique_any<LocalMemTraits>;
using unique_schandle = unique_any<ServiceHandleTraits>;

// A handle of a library bound at run time (an EVT_HANDLE, say), closed through the close
// function bound with it; a null handle or a null close function closes nothing.
template <class T, class CloseFn>
class unique_bound {
 public:
  unique_bound() noexcept = default;
  unique_bound(T value, CloseFn close) noexcept : value_(value), close_(close) {}
  unique_bound(const unique_bound&) = delete;
  unique_bound& operator=(const unique_bound&) = delete;
  unique_bound(unique_bound&& other) noexcept
      : value_(std::exchange(other.value_, T{})), close_(std::exchange(other.close_, CloseFn{})) {}
  unique_bound& operator=(unique_bound&& other) noexcept {
    if (this != &other) {
      reset();
      value_ = std::exchange(other.value_, T{});
      close_ = std::exchange(other.close_, CloseFn{});
    }
    return *this;
  }
  ~unique_bound() { reset(); }

  T get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != T{}; }
  [[nodiscard]] T release() noexcept { return std::exchange(value_, T{}); }
  // Closes the current handle, if any, keeping the thread's last error as it was.
  void reset() noexcept {
    T old = std::exchange(value_, T{});
    if (old != T{} && close_ != nullptr) {
      const DWORD error = ::GetLastError();
      close_(old);
      ::SetLastError(error);
    }
  }
  void reset(T value, CloseFn close) noexcept {
    reset();
    value_ = value;
    close_ = close;
  }

 private:
  T value_{};
  CloseFn close_{};
};

}  // namespace ky
