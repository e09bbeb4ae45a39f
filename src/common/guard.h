// The one exception boundary: every method the host or another thread calls, every callback,
// work item and thread procedure runs its body through Guarded, so that an exception (an
// allocation failure, mostly) becomes the method's failure code and one log line instead of
// crossing into code that cannot handle it.
#pragma once

#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "common/log.h"

namespace ky {

inline constexpr std::uint32_t kGeneralFailure = 31;  // ERROR_GEN_FAILURE
inline constexpr std::uint32_t kOutOfMemory = 14;     // ERROR_OUTOFMEMORY

// Logs the exception in flight, under `where`, at error level. Call only inside a catch.
void LogCurrentException(const wchar_t* where) noexcept;

// Returns body(), or `failure` when body throws.
template <class R, class Body>
R Guarded(const wchar_t* where, R failure, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    LogCurrentException(where);
    return failure;
  }
}

// Returns body(); `outOfMemory` when body throws std::bad_alloc, `failure` for any other
// exception. For the methods whose callers tell a lack of memory apart.
template <class R, class Body>
R Guarded(const wchar_t* where, R failure, R outOfMemory, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (const std::bad_alloc&) {
    LogCurrentException(where);
    return outOfMemory;
  } catch (...) {
    LogCurrentException(where);
    return failure;
  }
}

// For bodies that return nothing (callbacks, thread procedures): an exception is logged and
// swallowed. Returns false when body threw.
template <class Body>
bool GuardedVoid(const wchar_t* where, Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
    return true;
  } catch (...) {
    LogCurrentException(where);
    return false;
  }
}

}  // namespace ky
