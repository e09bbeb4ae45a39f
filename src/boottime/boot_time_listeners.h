// The IBootTimeEvents listeners of an IBootTime object, shared by the plug-in and the pipe
// client so that both answer AddListener and RemoveListener with the same codes.
#pragma once

#include <windows.h>

#include <cstdint>

#include "common/callback_list.h"
#include "common/guard.h"
#include "lumera/boottime.h"

namespace boottime {

class BootTimeListeners {
 public:
  // 0, 13 for a null listener, 183 when it is already registered, or 31 (logged under
  // `function`) when registering throws.
  std::uint32_t Add(const wchar_t* function, IBootTimeEvents* listener) {
    if (listener == nullptr) return ERROR_INVALID_DATA;
    return ky::Guarded(function, ky::kGeneralFailure, [&] { return list_.Register(listener); });
  }
  // 0, or 1168 for a listener that is not registered.
  std::uint32_t Remove(IBootTimeEvents* listener) { return list_.Unregister(listener); }
  // Tells every listener registered at this moment.
  void Tell(std::uint32_t status) {
    list_.ForEach([status](IBootTimeEvents* listener) { listener->OnDataAnalysed(status); });
  }

 private:
  CallbackList<IBootTimeEvents*> list_;
};

}  // namespace boottime
