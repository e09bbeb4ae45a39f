// A CRITICAL_SECTION with its lifetime; lockable, so std::lock_guard and std::unique_lock hold it.
#pragma once

#include <windows.h>

namespace ky {

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
