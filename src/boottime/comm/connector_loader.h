// Loads pipelink.dll from this module's folder and makes its "connclient" object; shared by
// the boot-time client and the startup manager.
#pragma once

#include <cstdint>
#include <string>

#include "common/module_library.h"
#include "lumera/pipelink.h"

namespace boottime {

class CConnectorLibrary {
 public:
  CConnectorLibrary() = default;
  ~CConnectorLibrary();  // Unload()
  CConnectorLibrary(const CConnectorLibrary&) = delete;
  CConnectorLibrary& operator=(const CConnectorLibrary&) = delete;

  // Loads the library at `path` (again with the altered search path when that fails and the
  // path is absolute), resolves its exports and creates the "connclient" object. Returns 0,
  // or the failing call's code (never 0 on failure); nothing is kept on failure.
  [[nodiscard]] std::uint32_t Load(const std::wstring& path);
  // Destroys the object and frees the library.
  void Unload();

  pipelink::IConnClient* Client() const { return client_; }

  // The folder of the module this code is linked into + "pipelink.dll".
  static std::wstring DefaultPath();

 private:
  ky::KyFactoryLibrary library_;
  pipelink::IConnClient* client_ = nullptr;
};

}  // namespace boottime
