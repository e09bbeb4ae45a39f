// One reference to another of the host's plug-ins, taken by name from the component manager
// and given back exactly once when the owner goes (the manager's GetPlugin/ReleasePlugin pair).
//
// Not thread-safe: one owner takes and releases it; the plug-in pointer it hands out is valid
// only while it is held.
#pragma once

#include <windows.h>

#include <cstdint>
#include <utility>

#include "lumera/ky_base.h"

namespace ky {

template <class Interface>
class PluginRef {
 public:
  PluginRef() = default;
  ~PluginRef() { Reset(); }
  // Movable only (the moves make the copies deleted): one reference, one release.
  PluginRef(PluginRef&& other) noexcept { Swap(other); }
  PluginRef& operator=(PluginRef&& other) noexcept {
    PluginRef moved(std::move(other));
    Swap(moved);
    return *this;
  }

  // Releases what is held, then asks `manager` for `name`: the GetPlugin code (with nothing
  // held when it is not 0), ERROR_INVALID_DATA without a manager. A plug-in that answers 0
  // but hands out null is not held, so it is not released either.
  [[nodiscard]] std::uint32_t Acquire(IPlgComponentManager* manager, const wchar_t* name, const GUID& iid) {
    Reset();
    if (manager == nullptr) return ERROR_INVALID_DATA;
    void* object = nullptr;
    const std::uint32_t result = manager->GetPlugin(name, iid, &object);
    if (result == 0 && object != nullptr) {
      manager_ = manager;
      name_ = name;
      object_ = static_cast<Interface*>(object);
    }
    return result;
  }

  // Gives the plug-in back once; nothing when none is held.
  void Reset() {
    Interface* held = std::exchange(object_, nullptr);
    if (held != nullptr) (void)manager_->ReleasePlugin(name_);
    manager_ = nullptr;
    name_ = nullptr;
  }

  Interface* get() const { return object_; }
  Interface* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  void Swap(PluginRef& other) noexcept {
    std::swap(manager_, other.manager_);
    std::swap(name_, other.name_);
    std::swap(object_, other.object_);
  }

  IPlgComponentManager* manager_ = nullptr;
  const wchar_t* name_ = nullptr;  // a constant of the caller's, which outlives the reference
  Interface* object_ = nullptr;
};

}  // namespace ky
