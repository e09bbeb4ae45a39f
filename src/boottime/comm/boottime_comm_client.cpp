#include "boottime/comm/boottime_comm_client.h"

#include "boottime/comm/messages.h"
#include "boottime/comm/payload.h"
#include "common/com_ptr.h"
#include "common/guard.h"
#include "common/log.h"
#include "lumera/interface_ids.h"

namespace boottime {
namespace {

constexpr std::uint32_t kSendFailed = kStatusNoResults;
constexpr wchar_t kNameBootTime[] = L"NpcMsgBootTimeGetBootTime";
constexpr wchar_t kNameTotal[] = L"NpcMsgBootTimeGetTotalBootImpact";
constexpr wchar_t kNameImpact[] = L"NpcMsgBootTimeGetBootImpact";
constexpr wchar_t kNameDisk[] = L"NpcMsgBootTimeGetDiskSpeed";
constexpr wchar_t kNameHistory[] = L"NpcMsgBootTimeGetBootHistory";

// The answer to one query, read whole or not at all.
bool ReadAnswer(CPayloadReader& reader, std::uint32_t* value) { return reader.ReadBootTime(value); }
bool ReadAnswer(CPayloadReader& reader, BootCounters* value) { return reader.ReadCounters(value); }
bool ReadAnswer(CPayloadReader& reader, ky::List<ProcessImpact>* value) { return reader.ReadImpactList(value); }
bool ReadAnswer(CPayloadReader& reader, DiskSpeed* value) { return reader.ReadDiskSpeed(value); }
bool ReadAnswer(CPayloadReader& reader, ky::List<std::string>* value) { return reader.ReadHistory(value); }

// Reads one answer and, only when it is whole, hands it to `on` with code 0.
template <class Value, class Client, class Arg>
bool Pass(CPayloadReader& reader, Client& client, void (Client::*on)(std::uint32_t, Arg)) {
  Value value{};
  if (!ReadAnswer(reader, &value)) return false;
  (client.*on)(0, value);
  return true;
}

}  // namespace

CBootTimeCommClient::CBootTimeCommClient() = default;

CBootTimeCommClient::~CBootTimeCommClient() {
  Stop();
  UnInit();
}

void* CBootTimeCommClient::GetInterface(const GUID& iid) {
  if (KyIsEqualId(iid, lumera::ids::IBootTimeCommClientAsync)) return static_cast<IBootTimeCommClientAsync*>(this);
  return KyInterfaceFor<IBootTimeCommClient>(this, iid,
                                             {lumera::ids::IKyBaseInterface, lumera::ids::IServPlugin,
                                              lumera::ids::IBootTime, lumera::ids::IBootTimeCommClient});
}

std::uint32_t CBootTimeCommClient::Init(IServMain*) {
  KY_TRACE(L"boottime::CBootTimeCommClient::Init");
  return ky::Guarded(L"boottime::CBootTimeCommClient::Init", ky::kGeneralFailure, [&]() -> std::uint32_t {
    std::uint32_t result = connector_.Load(CConnectorLibrary::DefaultPath());
    if (result != 0) {
      KY_LOG(logging::kLevelError, L"FAILED load pipelink.dll 0x%x", result);
      return result;
    }
    result = connector_.Client()->Init(0);
    if (result != 0) {
      KY_LOG(logging::kLevelError, L"FAILED connector init 0x%x", result);
      connector_.Unload();
      return result;
    }
    result = connector_.Client()->Start();
    if (result != 0) {
      KY_LOG(logging::kLevelError, L"FAILED connector start 0x%x", result);
      connector_.Unload();
      return result;
    }
    return 0;
  });
}

std::uint32_t CBootTimeCommClient::UnInit() {
  KY_TRACE(L"boottime::CBootTimeCommClient::UnInit");
  if (connector_.Client() != nullptr) connector_.Client()->Stop();
  connector_.Unload();
  return 0;
}

std::uint32_t CBootTimeCommClient::Start() {
  KY_TRACE(L"boottime::CBootTimeCommClient::Start");
  return ky::Guarded(L"boottime::CBootTimeCommClient::Start", ky::kGeneralFailure, [&]() -> std::uint32_t {
    if (pipe_ != nullptr) return 0;
    std::uint32_t result = ERROR_NOT_READY;
    if (connector_.Client() != nullptr) {
      result = connector_.Client()->Connect(msg::kPipeName, 0, 0, msg::kTimeoutMs, &pipe_);
      if (result == 0 && pipe_ == nullptr) result = ERROR_GEN_FAILURE;
    }
    if (result == 0) {
      result = pipe_->RegisterCallback(&CBootTimeCommClient::NpcCallback, this, pipelink::kCallbackMessages);
      if (result != 0) {
        connector_.Client()->Close(pipe_);
        pipe_ = nullptr;
      }
    }
    if (result != 0) KY_LOG(logging::kLevelError, L"Coould not connect comm server: %s", msg::kPipeName);
    return result;
  });
}

std::uint32_t CBootTimeCommClient::Stop() {
  KY_TRACE(L"boottime::CBootTimeCommClient::Stop");
  if (pipe_ != nullptr) {
    pipe_->UnregisterCallback(pipelink::kCallbackMessages);
    if (connector_.Client() != nullptr) connector_.Client()->Close(pipe_);
    pipe_ = nullptr;
  }
  return 0;
}

std::uint32_t CBootTimeCommClient::SendQuery(std::uint32_t id, const wchar_t* name, const void* payload,
                                             std::uint32_t size, Reply* reply) {
  KY_TRACE(L"boottime::CBootTimeCommClient::SendQuery");
  pipelink::PipeMessage* message = nullptr;
  const std::uint32_t sent =
      pipe_ == nullptr ? ERROR_PIPE_NOT_CONNECTED : pipe_->Send(id, payload, size, &message, 0, msg::kTimeoutMs);
  if (sent != 0 || message == nullptr) {
    KY_LOG(logging::kLevelError, L"sendMessage %s failed 0x%x", name, sent);
    return kSendFailed;
  }
  Reply held(message, ReplyDeleter{pipe_});
  const std::uint32_t result = message->result;
  if (result != 0) {
    KY_LOG(logging::kLevelError, L"sendMessage %s returns 0x%x", name, result);
    return result;
  }
  *reply = std::move(held);
  return 0;
}

template <class Read>
std::uint32_t CBootTimeCommClient::Query(const wchar_t* function, std::uint32_t id, const wchar_t* name,
                                         const CPayloadWriter* request, Read read) {
  return ky::Guarded(function, ky::kGeneralFailure, [&]() -> std::uint32_t {
    Reply reply;
    const std::uint32_t result = request == nullptr ? SendQuery(id, name, nullptr, 0, &reply)
                                                    : SendQuery(id, name, request->Data(), request->Size(), &reply);
    if (result != 0) return result;
    // A short reply is read as far as it goes; what it does not hold is left as it was.
    CPayloadReader reader(reply->payload, reply->size);
    read(reader);
    return 0;
  });
}

std::uint32_t CBootTimeCommClient::GetBootTime(std::uint32_t* milliseconds) {
  KY_TRACE(L"boottime::CBootTimeCommClient::GetBootTime");
  if (milliseconds == nullptr) return ERROR_INVALID_DATA;
  return Query(L"boottime::CBootTimeCommClient::GetBootTime", msg::NpcMsgBootTimeGetBootTime, kNameBootTime, nullptr,
               [&](CPayloadReader& reader) {
                 (void)reader.ReadBootTime(milliseconds);
                 KY_LOG(logging::kLevelInfo, L"time=%d", *milliseconds);
               });
}

std::uint32_t CBootTimeCommClient::GetTotalBootImpact(BootCounters* total) {
  KY_TRACE(L"boottime::CBootTimeCommClient::GetTotalBootImpact");
  if (total == nullptr) return ERROR_INVALID_DATA;
  // Sends the boot-time query, not id 2: the operation has always been defined this way.
  return Query(L"boottime::CBootTimeCommClient::GetTotalBootImpact", msg::NpcMsgBootTimeGetBootTime, kNameTotal,
               nullptr, [&](CPayloadReader& reader) {
                 (void)reader.ReadCounters(total);
                 KY_LOG(logging::kLevelInfo, L"process=[%s]", DescribeCounters(*total).c_str());
               });
}

std::uint32_t CBootTimeCommClient::GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) {
  KY_TRACE(L"boottime::CBootTimeCommClient::GetBootImpact");
  if (impacts == nullptr || key == nullptr) return ERROR_INVALID_DATA;
  CPayloadWriter request;
  if (!ky::GuardedVoid(L"boottime::CBootTimeCommClient::GetBootImpact", [&] { request.WriteProcessKey(*key); })) {
    return ky::kGeneralFailure;
  }
  return Query(L"boottime::CBootTimeCommClient::GetBootImpact", msg::NpcMsgBootTimeGetBootImpact, kNameImpact,
               &request, [&](CPayloadReader& reader) {
                 std::uint32_t count = 0;
                 if (!reader.ReadU32(&count)) return;
                 // Entries are taken as far as the reply holds whole ones; each needs bytes, so a
                 // lying count costs nothing.
                 ProcessImpact impact;
                 for (std::uint32_t i = 0; i < count && reader.ReadImpact(&impact); ++i) {
                   KY_LOG(logging::kLevelDebug, L"process=[" BOOTTIME_IMPACT_FORMAT L"]", impact.ppid, impact.pid,
                          impact.name.c_str(), impact.kernel, impact.user, impact.read, impact.write, impact.other);
                   impacts->Add(impact);
                 }
               });
}

std::uint32_t CBootTimeCommClient::GetDiskSpeed(DiskSpeed* speed) {
  KY_TRACE(L"boottime::CBootTimeCommClient::GetDiskSpeed");
  if (speed == nullptr) return ERROR_INVALID_DATA;
  return Query(L"boottime::CBootTimeCommClient::GetDiskSpeed", msg::NpcMsgBootTimeGetDiskSpeed, kNameDisk, nullptr,
               [&](CPayloadReader& reader) {
                 (void)reader.ReadDiskSpeed(speed);
                 KY_LOG(logging::kLevelInfo, L"diskSpeed=[%s]", DescribeDiskSpeed(*speed).c_str());
               });
}

std::uint32_t CBootTimeCommClient::GetBootHistory(std::uint32_t count, ky::IList<std::string>* records) {
  KY_TRACE(L"boottime::CBootTimeCommClient::GetBootHistory");
  if (records == nullptr) return ERROR_INVALID_DATA;
  CPayloadWriter request;
  request.WriteU32(count);
  return Query(L"boottime::CBootTimeCommClient::GetBootHistory", msg::NpcMsgBootTimeGetBootHistory, kNameHistory,
               &request, [&](CPayloadReader& reader) {
                 if (!reader.ReadHistory(records)) KY_LOG(logging::kLevelError, L"history reply unreadable");
                 KY_LOG(logging::kLevelInfo, L"history records=%u", records->Count());
               });
}

std::uint32_t CBootTimeCommClient::AddListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimeCommClient::AddListener");
  return events_.Add(L"boottime::CBootTimeCommClient::AddListener", listener);
}

std::uint32_t CBootTimeCommClient::RemoveListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimeCommClient::RemoveListener");
  return events_.Remove(listener);
}

void CBootTimeCommClient::OnDataAnalysed(std::uint32_t status) {
  KY_TRACE(L"boottime::CBootTimeCommClient::OnDataAnalysed");
  KY_LOG(logging::kLevelInfo, L"OnDataAnalysed error code %d", status);
  events_.Tell(status);
}

std::uint32_t CBootTimeCommClient::PostQuery(std::uint32_t id, const wchar_t* name, const void* payload,
                                             std::uint32_t size) {
  KY_TRACE(L"boottime::CBootTimeCommClient::PostQuery");
  return ky::Guarded(L"boottime::CBootTimeCommClient::PostQuery", ky::kGeneralFailure, [&]() -> std::uint32_t {
    const std::uint32_t result = pipe_ == nullptr ? ERROR_PIPE_NOT_CONNECTED : pipe_->Post(id, payload, size, 0);
    if (result != 0) KY_LOG(logging::kLevelError, L"postMessage %s failed 0x%x", name, result);
    return result;
  });
}

std::uint32_t CBootTimeCommClient::GetBootTimeAsync() {
  return PostQuery(msg::NpcMsgBootTimeGetBootTime, kNameBootTime, nullptr, 0);
}

std::uint32_t CBootTimeCommClient::GetTotalBootImpactAsync() {
  return PostQuery(msg::NpcMsgBootTimeGetTotalBootImpact, kNameTotal, nullptr, 0);
}

std::uint32_t CBootTimeCommClient::GetBootImpactAsync(const ProcessKey* key) {
  if (key == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimeCommClient::GetBootImpactAsync", ky::kGeneralFailure, [&]() -> std::uint32_t {
    CPayloadWriter request;
    request.WriteProcessKey(*key);
    return PostQuery(msg::NpcMsgBootTimeGetBootImpact, kNameImpact, request.Data(), request.Size());
  });
}

std::uint32_t CBootTimeCommClient::GetDiskSpeedAsync() {
  return PostQuery(msg::NpcMsgBootTimeGetDiskSpeed, kNameDisk, nullptr, 0);
}

std::uint32_t CBootTimeCommClient::GetBootHistoryAsync(std::uint32_t count) {
  CPayloadWriter request;
  request.WriteU32(count);
  return PostQuery(msg::NpcMsgBootTimeGetBootHistory, kNameHistory, request.Data(), request.Size());
}

std::uint32_t CBootTimeCommClient::AddResponseObserver(IBootTimeResponse* observer) {
  if (observer == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimeCommClient::AddResponseObserver", ky::kGeneralFailure,
                     [&] { return responses_.Register(observer); });
}

std::uint32_t CBootTimeCommClient::RemoveResponseObserver(IBootTimeResponse* observer) {
  return responses_.Unregister(observer);
}

void CBootTimeCommClient::OnGetBootTime(std::uint32_t code, std::uint32_t milliseconds) {
  KY_TRACE(L"boottime::CBootTimeCommClient::OnGetBootTime");
  KY_LOG(logging::kLevelInfo, L"err=0x%x time=%d", code, milliseconds);
  responses_.ForEach([&](IBootTimeResponse* observer) { observer->OnGetBootTime(code, milliseconds); });
}

void CBootTimeCommClient::OnGetTotalBootImpact(std::uint32_t code, const BootCounters& total) {
  KY_TRACE(L"boottime::CBootTimeCommClient::OnGetTotalBootImpact");
  KY_LOG(logging::kLevelInfo, L"err=0x%x process=[%s]", code, DescribeCounters(total).c_str());
  responses_.ForEach([&](IBootTimeResponse* observer) { observer->OnGetTotalBootImpact(code, total); });
}

void CBootTimeCommClient::OnGetBootImpact(std::uint32_t code, const ky::IList<ProcessImpact>& impacts) {
  KY_TRACE(L"boottime::CBootTimeCommClient::OnGetBootImpact");
  const ky::com_ptr<ky::ConstListEnum<ProcessImpact>> entries(impacts.ConstEnum());
  const ProcessImpact* impact = nullptr;
  bool any = false;
  while (entries->Next(&impact)) {
    any = true;
    KY_LOG(logging::kLevelDebug, L"err=0x%x process=[" BOOTTIME_IMPACT_FORMAT L"]", code, impact->ppid, impact->pid,
           impact->name.c_str(), impact->kernel, impact->user, impact->read, impact->write, impact->other);
  }
  // An error answer or an empty list is an answer too.
  if (!any) KY_LOG(logging::kLevelInfo, L"err=0x%x process=[%s]", code, L"");
  responses_.ForEach([&](IBootTimeResponse* observer) { observer->OnGetBootImpact(code, impacts); });
}

void CBootTimeCommClient::OnGetDiskSpeed(std::uint32_t code, const DiskSpeed& speed) {
  KY_TRACE(L"boottime::CBootTimeCommClient::OnGetDiskSpeed");
  KY_LOG(logging::kLevelInfo, L"err=0x%x diskSpeed=[%s]", code, DescribeDiskSpeed(speed).c_str());
  responses_.ForEach([&](IBootTimeResponse* observer) { observer->OnGetDiskSpeed(code, speed); });
}

void CBootTimeCommClient::OnGetBootHistory(std::uint32_t code, const ky::IList<std::string>& records) {
  KY_TRACE(L"boottime::CBootTimeCommClient::OnGetBootHistory");
  KY_LOG(logging::kLevelInfo, L"err=0x%x history records=%u", code, records.Count());
  responses_.ForEach([&](IBootTimeResponse* observer) { observer->OnGetBootHistory(code, records); });
}

std::uint32_t __cdecl CBootTimeCommClient::NpcCallback(void* context, const pipelink::PipeMessage* message) {
  return msg::Deliver<CBootTimeCommClient>(
      L"boottime::CBootTimeCommClient::NpcCallback", context, message,
      [](CBootTimeCommClient& self, const pipelink::PipeMessage& m) { return self.HandleMessage(m); });
}

std::uint32_t CBootTimeCommClient::HandleMessage(const pipelink::PipeMessage& message) {
  KY_TRACE(L"boottime::CBootTimeCommClient::NpcCallback");
  using Self = CBootTimeCommClient;
  CPayloadReader reader(message.payload, message.size);
  bool read = false;
  switch (message.id) {
    case msg::NpcMsgBootTimeGetBootTime: read = Pass<std::uint32_t>(reader, *this, &Self::OnGetBootTime); break;
    case msg::NpcMsgBootTimeGetTotalBootImpact: read = Pass<BootCounters>(reader, *this, &Self::OnGetTotalBootImpact); break;
    case msg::NpcMsgBootTimeGetBootImpact: read = Pass<ky::List<ProcessImpact>>(reader, *this, &Self::OnGetBootImpact); break;
    case msg::NpcMsgBootTimeGetDiskSpeed: read = Pass<DiskSpeed>(reader, *this, &Self::OnGetDiskSpeed); break;
    case msg::NpcMsgBootTimeGetBootHistory: read = Pass<ky::List<std::string>>(reader, *this, &Self::OnGetBootHistory); break;
    case msg::NpcMsgBootTimeGetBootTimeError:
    case msg::NpcMsgBootTimeGetTotalBootImpactError:
    case msg::NpcMsgBootTimeGetBootImpactError:
    case msg::NpcMsgBootTimeGetDiskSpeedError:
    case msg::NpcMsgBootTimeGetBootHistoryError: {
      std::uint32_t code = 0;
      if (!(read = reader.ReadErrorCode(&code))) break;
      if (message.id == msg::NpcMsgBootTimeGetBootTimeError) OnGetBootTime(code, 0);
      if (message.id == msg::NpcMsgBootTimeGetTotalBootImpactError) OnGetTotalBootImpact(code, BootCounters{});
      if (message.id == msg::NpcMsgBootTimeGetBootImpactError) OnGetBootImpact(code, ky::List<ProcessImpact>{});
      if (message.id == msg::NpcMsgBootTimeGetDiskSpeedError) OnGetDiskSpeed(code, DiskSpeed{});
      if (message.id == msg::NpcMsgBootTimeGetBootHistoryError) OnGetBootHistory(code, ky::List<std::string>{});
      break;
    }
    case msg::NpcMsgBootTimeOnDataAnalysed: {
      std::uint32_t status = 0;
      if ((read = reader.ReadU32(&status))) OnDataAnalysed(status);
      break;
    }
    default:
      break;
  }
  if (!read) {
    KY_LOG(logging::kLevelError, L"message %u: ERROR_GEN_FAILURE", message.id);
    if (pipe_ != nullptr) pipe_->Acknowledge(&message, ERROR_GEN_FAILURE);
    return ERROR_GEN_FAILURE;
  }
  if (pipe_ != nullptr) pipe_->Acknowledge(&message, 0);
  return 0;
}

}  // namespace boottime
