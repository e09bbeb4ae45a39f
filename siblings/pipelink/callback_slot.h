// The one message callback of a connection or pipe, swapped safely against running calls.
#pragma once

#include <windows.h>

#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "lumera/pipelink.h"

namespace pipelink {

class CallbackSlot {
 public:
  std::uint32_t Register(PipeCallback callback, void* context, std::uint32_t kind) {
    if (kind != kCallbackMessages || callback == nullptr) return ERROR_INVALID_PARAMETER;
    std::unique_lock hold(lock_);
    if (callback_ != nullptr) return ERROR_ALREADY_EXISTS;
    callback_ = callback;
    context_ = context;
    return 0;
  }

  // Taking the lock exclusively waits for every running call to return.
  std::uint32_t Unregister(std::uint32_t kind) {
    if (kind != kCallbackMessages) return ERROR_INVALID_PARAMETER;
    std::unique_lock hold(lock_);
    if (callback_ == nullptr) return ERROR_NOT_FOUND;
    callback_ = nullptr;
    context_ = nullptr;
    return 0;
  }

  // Returns the callback's status, or 31 when none is set or it threw.
  std::uint32_t Call(const PipeMessage& message) {
    std::shared_lock hold(lock_);
    if (callback_ == nullptr) return ERROR_GEN_FAILURE;
    try {
      return callback_(context_, &message);
    } catch (...) {
      return ERROR_GEN_FAILURE;
    }
  }

 private:
  std::shared_mutex lock_;
  PipeCallback callback_ = nullptr;
  void* context_ = nullptr;
};

}  // namespace pipelink
