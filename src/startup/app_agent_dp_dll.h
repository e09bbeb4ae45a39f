// AppAgentDPDll: AppAgentDP.dll, the product agent's data library, bound at run time with its
// seven entry points.
#pragma once

#include <string>

#include "common/module_library.h"
#include "lumera/appagentdp.h"

namespace startup {

class AppAgentDPDll {
 public:
  explicit AppAgentDPDll(std::wstring libraryName = appagentdp::kLibraryName) : libraryName_(std::move(libraryName)) {}

  // Loads the library and binds all seven entry points, in their documented order; false,
  // logged, with nothing bound when the library or any entry point is missing. Once bound,
  // the library stays loaded and later calls return true at once.
  [[nodiscard]] bool Init();
  [[nodiscard]] bool Bound() const { return endTransaction != nullptr; }

  appagentdp::AppAgentDP_InitFn init = nullptr;
  appagentdp::AppAgentDP_GetAppsFn getApps = nullptr;
  appagentdp::AppAgentDP_RemAppFn remApp = nullptr;
  appagentdp::AppAgentDP_GetFn get = nullptr;
  appagentdp::AppAgentDP_SetFn set = nullptr;
  appagentdp::AppAgentDP_BeginTransactionFn beginTransaction = nullptr;
  appagentdp::AppAgentDP_EndTransactionFn endTransaction = nullptr;

 private:
  std::wstring libraryName_;
  ky::ModuleLibrary library_;
};

}  // namespace startup
