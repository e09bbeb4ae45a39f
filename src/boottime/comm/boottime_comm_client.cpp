#include "boottime/comm/boottime_comm_client.h"

#include "common/log.h"
#include "lumera/interface_ids.h"

namespace boottime {

CBootTimeCommClient::CBootTimeCommClient() = default;
CBootTimeCommClient::~CBootTimeCommClient() = default;

void* CBootTimeCommClient::GetInterface(const GUID& iid) {
  if (KyIsEqualId(iid, lumera::ids::IKyBaseInterface) || KyIsEqualId(iid, lumera::ids::IServPlugin) ||
      KyIsEqualId(iid, lumera::ids::IBootTime) || KyIsEqualId(iid, lumera::ids::IBootTimeCommClient)) {
    return static_cast<IBootTimeCommClient*>(this);
  }
  if (KyIsEqualId(iid, lumera::ids::IBootTimeCommClientAsync)) return static_cast<IBootTimeCommClientAsync*>(this);
  return nullptr;
}

std::uint32_t CBootTimeCommClient::Init(IServMain*) {
  KY_TRACE(L"boottime::CBootTimeCommClient::Init");
  KY_LOG(logging::kLevelError, L"boottimepipe client is not available in this build 0x%x", ERROR_NOT_SUPPORTED);
  return ERROR_NOT_SUPPORTED;
}

std::uint32_t CBootTimeCommClient::UnInit() { return 0; }
std::uint32_t CBootTimeCommClient::Start() { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::Stop() { return 0; }
std::uint32_t CBootTimeCommClient::GetBootTime(std::uint32_t*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::GetTotalBootImpact(BootCounters*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::GetBootImpact(ky::IList<ProcessImpact>*, const ProcessKey*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::GetDiskSpeed(DiskSpeed*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::AddListener(IBootTimeEvents*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::RemoveListener(IBootTimeEvents*) { return ERROR_NOT_SUPPORTED; }
void CBootTimeCommClient::OnDataAnalysed(std::uint32_t) {}
std::uint32_t CBootTimeCommClient::GetBootTimeAsync() { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::GetTotalBootImpactAsync() { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::GetBootImpactAsync(const ProcessKey*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::GetDiskSpeedAsync() { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::AddResponseObserver(IBootTimeResponse*) { return ERROR_NOT_SUPPORTED; }
std::uint32_t CBootTimeCommClient::RemoveResponseObserver(IBootTimeResponse*) { return ERROR_NOT_SUPPORTED; }

}  // namespace boottime
