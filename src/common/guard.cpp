#include "common/guard.h"

namespace ky {

void LogCurrentException(const wchar_t* where) noexcept {
  const wchar_t* kind = L"unknown";
  const char* what = nullptr;
  try {
    throw;
  } catch (const std::bad_alloc&) {
    kind = L"out of memory";
  } catch (const std::exception& e) {
    what = e.what();  // lives on: the caller's handler still holds the exception
  } catch (...) {
  }
  try {
    if (what != nullptr) {
      logging::Write(logging::kLevelError, where, L"exception: %S", what);
    } else {
      logging::Write(logging::kLevelError, where, L"exception: %s", kind);
    }
  } catch (...) {
    // A log that cannot be reached for want of memory leaves nothing to report with.
  }
}

}  // namespace ky
