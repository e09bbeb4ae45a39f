// Threads and events for tests that must wait on other threads with a bound, never sleep.
#pragma once

#include <windows.h>

#include <functional>
#include <mutex>
#include <vector>

#include "common/unique_handle.h"

namespace testsupport {

// Something that must happen does so well within this; something that must not happen is
// given this long to show up.
inline constexpr DWORD kLongWait = 10000;
inline constexpr DWORD kShortWait = 200;

// Polls `condition` until it holds (true) or ms have passed (false), for states nothing signals.
bool WaitUntil(const std::function<bool()>& condition, DWORD ms = kLongWait);

// What callbacks on other threads record, in order, and a bounded wait for the first n records.
template <class T>
class Records {
 public:
  void Add(T record) {
    std::lock_guard hold(lock_);
    records_.push_back(std::move(record));
  }
  // The records once there are `n` of them, or all there are when ms have passed.
  std::vector<T> WaitFor(std::size_t n, DWORD ms = kLongWait) {
    WaitUntil([&] {
      std::lock_guard hold(lock_);
      return records_.size() >= n;
    }, ms);
    std::lock_guard hold(lock_);
    return records_;
  }

 private:
  std::mutex lock_;
  std::vector<T> records_;
};

// A manual-reset event.
class Event {
 public:
  Event() : handle_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  void set() { ::SetEvent(handle_.get()); }
  // True when the event is set within ms.
  bool waitFor(DWORD ms) const { return ::WaitForSingleObject(handle_.get(), ms) == WAIT_OBJECT_0; }
  bool isSet() const { return waitFor(0); }
  HANDLE get() const { return handle_.get(); }

 private:
  ky::unique_handle handle_;
};

// Runs body on a thread of its own. The destructor waits up to kLongWait for it to end.
class TestThread {
 public:
  explicit TestThread(std::function<void()> body);
  ~TestThread();

  // True when the thread has ended within ms.
  bool join(DWORD ms);

 private:
  static DWORD WINAPI Run(void* self);

  std::function<void()> body_;
  DWORD id_ = 0;
  ky::unique_handle thread_;
};

}  // namespace testsupport
