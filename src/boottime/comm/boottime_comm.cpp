#include "boottime/comm/boottime_comm.h"

#include "common/log.h"
#include "lumera/interface_ids.h"

namespace boottime {

CBootTimeComm::CBootTimeComm() = default;
CBootTimeComm::~CBootTimeComm() = default;

void* CBootTimeComm::GetInterface(const GUID& iid) {
  if (KyIsEqualId(iid, lumera::ids::IKyBaseInterface) || KyIsEqualId(iid, lumera::ids::IServPlugin) ||
      KyIsEqualId(iid, lumera::ids::IBootTimeComm)) {
    return static_cast<IBootTimeComm*>(this);
  }
  return nullptr;
}

std::uint32_t CBootTimeComm::Init(IServMain*) {
  KY_TRACE(L"boottime::CBootTimeComm::Init");
  KY_LOG(logging::kLevelError, L"boottimepipe server is not available in this build 0x%x", ERROR_NOT_SUPPORTED);
  return ERROR_NOT_SUPPORTED;
}

std::uint32_t CBootTimeComm::UnInit() {
  KY_TRACE(L"boottime::CBootTimeComm::UnInit");
  return 0;
}

std::uint32_t CBootTimeComm::Start() {
  KY_TRACE(L"boottime::CBootTimeComm::Start");
  return ERROR_NOT_SUPPORTED;
}

std::uint32_t CBootTimeComm::Stop() {
  KY_TRACE(L"boottime::CBootTimeComm::Stop");
  return 0;
}

void CBootTimeComm::OnDataAnalysed(std::uint32_t) {}

}  // namespace boottime
