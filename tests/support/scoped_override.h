// A process-wide setting pointed elsewhere for the life of one object and put back when it
// goes, so that no test hands its singleton's state on to the next one.
#pragma once

#include <functional>
#include <utility>

namespace testsupport {

template <class T>
class ScopedOverride {
 public:
  // Reads the current value with `get`, then sets `value` with `set`; the destructor sets the
  // value read back.
  template <class Get, class Set>
  ScopedOverride(Get get, Set set, T value) : set_(std::move(set)), saved_(get()) {
    set_(std::move(value));
  }
  ~ScopedOverride() { set_(saved_); }
  ScopedOverride(const ScopedOverride&) = delete;
  ScopedOverride& operator=(const ScopedOverride&) = delete;

 private:
  std::function<void(const T&)> set_;
  T saved_;
};

}  // namespace testsupport
