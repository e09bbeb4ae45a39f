// Observer list guarded by a CSyncRWLock, each entry with a lock of its own and an
// active flag. Observers are called in registration order with the list's and their
// entry's read locks held, so an observer must not register or unregister from inside
// its own call.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "common/sync_rw_lock.h"

template <class Observer>
class CallbackList {
 public:
  static constexpr std::uint32_t kAlreadyExists = ERROR_ALREADY_EXISTS;  // 183
  static constexpr std::uint32_t kNotFound = ERROR_NOT_FOUND;            // 1168

  CallbackList() = default;
  CallbackList(const CallbackList&) = delete;
  CallbackList& operator=(const CallbackList&) = delete;
  virtual ~CallbackList() = default;

  // Removes the first active entry with this observer and cookie, keeping the others' order.
  // Returns 0, or 1168 when there is none.
  virtual std::uint32_t Unregister(Observer observer, std::uint64_t cookie = 0) {
    ExclusiveLock hold(lock_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      Entry& entry = **it;
      if (entry.observer == observer && entry.cookie == cookie && entry.active) {
        entries_.erase(it);
        return 0;
      }
    }
    return kNotFound;
  }

  // Appends the observer. Returns 0, or 183 when it is already registered and active
  // (the list is then unchanged).
  std::uint32_t Register(Observer observer, std::uint64_t cookie = 0) {
    auto fresh = std::make_unique<Entry>(observer, cookie);
    ExclusiveLock hold(lock_);
    for (const auto& entry : entries_) {
      SharedLock entryHold(entry->lock);
      if (entry->active && entry->observer == observer) return kAlreadyExists;
    }
    entries_.push_back(std::move(fresh));
    return 0;
  }

  // Calls fn(observer) for every active entry, in registration order.
  template <class Fn>
  void ForEach(Fn&& fn) {
    SharedLock hold(lock_);
    for (const auto& entry : entries_) {
      SharedLock entryHold(entry->lock);
      if (entry->active) fn(entry->observer);
    }
  }

  std::size_t Count() {
    SharedLock hold(lock_);
    return entries_.size();
  }

 private:
  struct Entry {
    Entry(Observer o, std::uint64_t c) : observer(o), cookie(c) {}
    Observer observer;
    std::uint64_t cookie;
    CSyncRWLock lock;
    std::uint8_t active = 1;
  };

  CSyncRWLock lock_;
  std::vector<std::unique_ptr<Entry>> entries_;
};
