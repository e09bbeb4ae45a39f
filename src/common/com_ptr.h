// An owned reference to a COM interface: released exactly once, movable, never copied.
#pragma once

#include <objbase.h>
#include <unknwn.h>

#include <utility>

#include "common/unique_handle.h"

namespace ky {

// Memory the shell or COM hands out (SHGetKnownFolderPath's path, say), freed with CoTaskMemFree.
struct CoTaskMemTraits {
  using type = wchar_t*;
  static type invalid() noexcept { return nullptr; }
  static bool is_valid(type h) noexcept { return h != nullptr; }
  static void close(type h) noexcept { ::CoTaskMemFree(h); }
};
using unique_cotaskmem_string = unique_any<CoTaskMemTraits>;

template <class T>
class com_ptr {
 public:
  com_ptr() noexcept = default;
  // Takes over a reference the caller already holds (as an out-parameter gave it).
  explicit com_ptr(T* value) noexcept : value_(value) {}
  com_ptr(const com_ptr&) = delete;
  com_ptr& operator=(const com_ptr&) = delete;
  com_ptr(com_ptr&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
  com_ptr& operator=(com_ptr&& other) noexcept {
    if (this != &other) reset(std::exchange(other.value_, nullptr));
    return *this;
  }
  ~com_ptr() { reset(); }

  T* get() const noexcept { return value_; }
  T* operator->() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != nullptr; }

  void reset(T* value = nullptr) noexcept {
    T* old = std::exchange(value_, value);
    if (old != nullptr) old->Release();
  }
  [[nodiscard]] T* release() noexcept { return std::exchange(value_, nullptr); }
  // For out-parameters of CoCreateInstance and friends; releases any current reference first.
  T** put() noexcept {
    reset();
    return &value_;
  }
  void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

  // QueryInterface for another interface of the same object; an empty pointer on failure.
  template <class U>
  [[nodiscard]] HRESULT query(REFIID iid, com_ptr<U>& out) const noexcept {
    if (value_ == nullptr) return E_POINTER;
    return value_->QueryInterface(iid, out.put_void());
  }

 private:
  T* value_ = nullptr;
};

}  // namespace ky
