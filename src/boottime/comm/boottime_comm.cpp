#include "boottime/comm/boottime_comm.h"

#include "boottime/comm/encoded_impact_list.h"
#include "boottime/comm/messages.h"
#include "common/guard.h"
#include "common/log.h"
#include "lumera/interface_ids.h"

namespace boottime {
namespace {

constexpr std::uint32_t kHostMissing = 0xFFFFFFFF;
constexpr wchar_t kBootTimePlugin[] = L"boottime";
constexpr wchar_t kConnServerPlugin[] = L"connserver";

// Logs the plug-in's answer to `query` under `function` and, when it is 0, has `write` put
// the value into the reply.
template <class Write>
std::uint32_t Answered(const wchar_t* function, const wchar_t* query, std::uint32_t code, Write write) {
  logging::Write(logging::kLevelInfo, function, L"%s err=%d", query, code);
  if (code == 0) write();
  return code;
}

}  // namespace

CBootTimeComm::CBootTimeComm() = default;

CBootTimeComm::~CBootTimeComm() {
  if (pipe_ != nullptr || listening_) Stop();
}

std::uint32_t CBootTimeComm::Init(IServMain* host) {
  KY_TRACE(L"boottime::CBootTimeComm::Init");
  return ky::Guarded(L"boottime::CBootTimeComm::Init", ky::kGeneralFailure, [&]() -> std::uint32_t {
    IPlgComponentManager* manager = host != nullptr ? host->GetComponentManager() : nullptr;
    if (manager == nullptr) {
      KY_LOG(logging::kLevelError, host == nullptr ? L"IServMain is null!" : L"Component Manager is null!");
      return kHostMissing;
    }
    if (bootTime_.Acquire(manager, kBootTimePlugin, lumera::ids::IBootTime) != 0 || !bootTime_) {
      KY_LOG(logging::kLevelError, L"Error getting plugin: %s", kBootTimePlugin);
    }
    if (connServer_.Acquire(manager, kConnServerPlugin, lumera::ids::PipeLinkServer) != 0 || !connServer_) {
      KY_LOG(logging::kLevelError, L"Error getting connector server.");
    }
    return 0;
  });
}

std::uint32_t CBootTimeComm::UnInit() {
  KY_TRACE(L"boottime::CBootTimeComm::UnInit");
  bootTime_.Reset();
  connServer_.Reset();
  return 0;
}

std::uint32_t CBootTimeComm::Start() {
  KY_TRACE(L"boottime::CBootTimeComm::Start");
  return ky::Guarded(L"boottime::CBootTimeComm::Start", ky::kGeneralFailure, [&]() -> std::uint32_t {
    if (!connServer_) {
      KY_LOG(logging::kLevelError, L"Connector server is null.");
      return ERROR_GEN_FAILURE;
    }
    if (pipe_ != nullptr) return 0;
    std::uint32_t result = connServer_->CreatePipeServer(msg::kPipeName, 0, &pipe_);
    if (result == 0 && pipe_ == nullptr) result = ERROR_GEN_FAILURE;
    if (result == 0) {
      result = pipe_->RegisterCallback(&CBootTimeComm::NpcCallback, this, pipelink::kCallbackMessages);
      if (result != 0) {
        connServer_->ReleasePipeServer(pipe_);
        pipe_ = nullptr;
      }
    }
    if (result != 0) {
      KY_LOG(logging::kLevelError, L"Could not register comm server: %s", msg::kPipeName);
      return result;
    }
    if (bootTime_) {
      const std::uint32_t added = bootTime_->AddListener(this);
      listening_ = added == 0;
      if (added != 0) KY_LOG(logging::kLevelWarning, L"AddListener failed 0x%x", added);
    }
    return 0;
  });
}

std::uint32_t CBootTimeComm::Stop() {
  KY_TRACE(L"boottime::CBootTimeComm::Stop");
  return ky::Guarded(L"boottime::CBootTimeComm::Stop", ky::kGeneralFailure, [&]() -> std::uint32_t {
    if (listening_ && bootTime_) bootTime_->RemoveListener(this);
    listening_ = false;
    if (pipe_ != nullptr) {
      pipe_->UnregisterCallback(pipelink::kCallbackMessages);
      if (connServer_) connServer_->ReleasePipeServer(pipe_);
      pipe_ = nullptr;
    }
    return 0;
  });
}

void* CBootTimeComm::GetInterface(const GUID& iid) {
  return KyInterfaceFor<IBootTimeComm>(this, iid,
                                       {lumera::ids::IKyBaseInterface, lumera::ids::IServPlugin, lumera::ids::IBootTimeComm});
}

void CBootTimeComm::OnDataAnalysed(std::uint32_t status) {
  KY_TRACE(L"boottime::CBootTimeComm::OnDataAnalysed");
  ky::GuardedVoid(L"boottime::CBootTimeComm::OnDataAnalysed", [&] {
    if (!connServer_) return;
    CPayloadWriter payload;
    payload.WriteU32(status);
    const std::uint32_t result = connServer_->Broadcast(msg::NpcMsgBootTimeOnDataAnalysed, payload.Data(), payload.Size(),
                                                        0, 0, pipelink::kNoTimeout);
    if (result != 0) KY_LOG(logging::kLevelWarning, L"Broadcast NpcMsgBootTimeOnDataAnalysed failed 0x%x", result);
  });
}

std::uint32_t __cdecl CBootTimeComm::NpcCallback(void* context, const pipelink::PipeMessage* message) {
  return msg::Deliver<CBootTimeComm>(L"boottime::CBootTimeComm::NpcCallback", context, message,
                                     [](CBootTimeComm& self, const pipelink::PipeMessage& m) { return self.HandleMessage(m); });
}

std::uint32_t CBootTimeComm::HandleMessage(const pipelink::PipeMessage& message) {
  KY_TRACE(L"boottime::CBootTimeComm::NpcCallback");
  switch (message.id) {
    case msg::NpcMsgBootTimeGetBootTime:
    case msg::NpcMsgBootTimeGetTotalBootImpact:
    case msg::NpcMsgBootTimeGetBootImpact:
    case msg::NpcMsgBootTimeGetDiskSpeed:
    case msg::NpcMsgBootTimeGetBootHistory:
      break;
    default:
      // Not a query: a synchronous sender still gets 31 from the connector.
      return ERROR_GEN_FAILURE;
  }
  CPayloadWriter payload;
  const std::uint32_t code = Query(message, payload);
  Answer(message, code, payload);
  return 0;
}

std::uint32_t CBootTimeComm::Query(const pipelink::PipeMessage& message, CPayloadWriter& payload) {
  KY_TRACE(L"boottime::CBootTimeComm::Query");
  if (!bootTime_) return ERROR_GEN_FAILURE;
  switch (message.id) {
    case msg::NpcMsgBootTimeGetBootTime: {
      std::uint32_t milliseconds = 0;
      return Answered(kyTrace_.Name(), L"GetBootTime", bootTime_->GetBootTime(&milliseconds),
                      [&] { payload.WriteBootTime(milliseconds); });
    }
    case msg::NpcMsgBootTimeGetTotalBootImpact: {
      BootCounters total;
      return Answered(kyTrace_.Name(), L"GetTotalBootImpact", bootTime_->GetTotalBootImpact(&total),
                      [&] { payload.WriteCounters(total); });
    }
    case msg::NpcMsgBootTimeGetBootImpact: {
      ProcessKey key;
      CPayloadReader reader(message.payload, message.size);
      if (!reader.ReadProcessKey(&key)) {
        KY_LOG(logging::kLevelError, L"GetBootImpact unreadable process key 0x%x", ERROR_GEN_FAILURE);
        return ERROR_GEN_FAILURE;
      }
      // The plug-in's entries go straight into the reply; on failure the reply carries only the code.
      CEncodedImpactList impacts(payload);
      const std::uint32_t code = Answered(kyTrace_.Name(), L"GetBootImpact", bootTime_->GetBootImpact(&impacts, &key), [] {});
      // The key's text, with zero counters, names the request in the log.
      KY_LOG(logging::kLevelInfo, L"err=0x%x process=[%s]", code,
             DescribeImpact(ProcessImpact{key.ppid, key.pid, key.name}).c_str());
      return code;
    }
    case msg::NpcMsgBootTimeGetDiskSpeed: {
      DiskSpeed speed;
      return Answered(kyTrace_.Name(), L"GetDiskSpeed", bootTime_->GetDiskSpeed(&speed),
                      [&] { payload.WriteDiskSpeed(speed); });
    }
    case msg::NpcMsgBootTimeGetBootHistory: {
      std::uint32_t count = 0;
      CPayloadReader reader(message.payload, message.size);
      if (!reader.ReadU32(&count)) {
        KY_LOG(logging::kLevelError, L"GetBootHistory unreadable count 0x%x", ERROR_GEN_FAILURE);
        return ERROR_GEN_FAILURE;
      }
      // A reply is one connector frame: the oldest records that would not fit are left out.
      CEncodedHistory records(payload, pipelink::kMaxPayloadBytes);
      return Answered(kyTrace_.Name(), L"GetBootHistory", bootTime_->GetBootHistory(count, &records), [] {});
    }
    default:
      return ERROR_GEN_FAILURE;
  }
}

void CBootTimeComm::Answer(const pipelink::PipeMessage& message, std::uint32_t code, const CPayloadWriter& payload) {
  KY_TRACE(L"boottime::CBootTimeComm::Answer");
  if (pipe_ == nullptr) return;
  std::uint32_t result = 0;
  if (pipelink::ExpectsReply(message)) {
    result = code == 0 ? pipe_->ReplyData(&message, message.id, payload.Data(), payload.Size())
                       : pipe_->ReplyError(&message, code);
  } else if (code == 0) {
    result = pipe_->Post(message.id, payload.Data(), payload.Size(), message.clientId);
  } else {
    CPayloadWriter error;
    error.WriteErrorCode(code);
    result = pipe_->Post(msg::ErrorIdOf(message.id), error.Data(), error.Size(), message.clientId);
  }
  if (result != 0) KY_LOG(logging::kLevelWarning, L"answer to message %u failed 0x%x", message.id, result);
}

}  // namespace boottime
