// A pipelink.dll object held by a host plug-in: the library is loaded from the host's folder
// and the object destroyed (ending all its threads) before the library is freed.
#pragma once

#include <windows.h>

#include <string>

#include "common/log.h"
#include "common/unique_handle.h"
#include "lumera/pipelink.h"
#include "module_runner.h"

namespace host {

class PipelinkObject {
 public:
  PipelinkObject(const wchar_t* objectName, const GUID& iid) : name_(objectName) {
    const std::wstring path = ExecutableFolder() + L"pipelink.dll";
    library_.reset(::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!library_) {
      logging::Write(logging::kLevelError, L"host::PipelinkObject", L"LoadLibrary %s failed 0x%x", path.c_str(),
                     ::GetLastError());
      return;
    }
    auto create = reinterpret_cast<KyCreateObjectFn>(reinterpret_cast<void*>(::GetProcAddress(library_.get(), "KyCreateObject")));
    destroy_ = reinterpret_cast<KyDestroyObjectFn>(reinterpret_cast<void*>(::GetProcAddress(library_.get(), "KyDestroyObject")));
    std::uint32_t result = ERROR_PROC_NOT_FOUND;
    if (create != nullptr && destroy_ != nullptr) result = create(name_, &iid, &object_);
    if (result != 0 || object_ == nullptr) {
      logging::Write(logging::kLevelError, L"host::PipelinkObject", L"KyCreateObject %s failed 0x%x", name_, result);
      object_ = nullptr;
    }
  }
  ~PipelinkObject() { Destroy(); }
  PipelinkObject(const PipelinkObject&) = delete;
  PipelinkObject& operator=(const PipelinkObject&) = delete;

  void* Object() const { return object_; }
  void Destroy() {
    if (object_ != nullptr && destroy_ != nullptr) destroy_(name_, object_);
    object_ = nullptr;
  }

 private:
  const wchar_t* name_;
  ky::unique_module library_;
  KyDestroyObjectFn destroy_ = nullptr;
  void* object_ = nullptr;
};

}  // namespace host
