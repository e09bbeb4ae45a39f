#include "startup/app_agent_dp_dll.h"

#include "common/log.h"

namespace startup {

bool AppAgentDPDll::Init() {
  KY_TRACE(L"AppAgentDPDll::Init");
  if (Bound()) return true;
  const std::uint32_t loaded = library_.Load(ky::SiblingPath(libraryName_));
  if (loaded != 0) {
    KY_LOG(logging::kLevelError, L"failed load AppAgentDP.dll err=%u", loaded);
    return false;
  }
  const char* missing = nullptr;
  const std::uint32_t bound = library_.Bind({ky::BindAs("AppAgentDP_Init", init),
                                             ky::BindAs("AppAgentDP_GetApps", getApps),
                                             ky::BindAs("AppAgentDP_RemApp", remApp),
                                             ky::BindAs("AppAgentDP_Get", get),
                                             ky::BindAs("AppAgentDP_Set", set),
                                             ky::BindAs("AppAgentDP_BeginTransaction", beginTransaction),
                                             ky::BindAs("AppAgentDP_EndTransaction", endTransaction)},
                                            &missing);
  if (bound != 0) {
    KY_LOG(logging::kLevelError, L"failed GetProcAddress %S err=%u", missing != nullptr ? missing : "", bound);
    library_.Free();
    return false;
  }
  return true;
}

}  // namespace startup
