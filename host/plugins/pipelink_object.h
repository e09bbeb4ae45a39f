// A pipelink.dll object held by a host plug-in: the library is loaded from the host's folder
// and the object destroyed (ending all its threads) before the library is freed.
#pragma once

#include <windows.h>

#include <string>

#include "common/log.h"
#include "common/module_library.h"
#include "lumera/pipelink.h"

namespace host {

class PipelinkObject {
 public:
  PipelinkObject(const wchar_t* objectName, const GUID& iid) : name_(objectName) {
    const std::wstring path = ky::ThisModuleFolder() + L"pipelink.dll";
    const char* missing = nullptr;
    std::uint32_t result = library_.Load(path, &missing);
    if (result != 0 && missing == nullptr) {
      logging::Write(logging::kLevelError, L"host::PipelinkObject", L"LoadLibrary %s failed 0x%x", path.c_str(), result);
      return;
    }
    if (result == 0) result = library_.Create(name_, iid, &object_);
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
    library_.Destroy(name_, object_);
    object_ = nullptr;
  }

 private:
  const wchar_t* name_;
  ky::KyFactoryLibrary library_;
  void* object_ = nullptr;
};

}  // namespace host
