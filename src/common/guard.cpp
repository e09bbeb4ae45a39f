#include "common/guard.h"

namespace ky {

void LogCurrentException(const wchar_t* where) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    logging::Write(logging::kLevelError, where, L"exception: out of memory");
  } catch (const std::exception& e) {
    logging::Write(logging::kLevelError, where, L"exception: %S", e.what());
  } catch (...) {
    logging::Write(logging::kLevelError, where, L"exception: unknown");
  }
}

}  // namespace ky
