#include "startup/startup_manager.h"

#include <cstring>
#include <mutex>

#include "common/guard.h"
#include "common/log.h"

namespace startup {

CBaseStartupManager::~CBaseStartupManager() { Uninit(); }

bool CBaseStartupManager::Init() {
  KY_TRACE(L"CBaseStartupManager::Init");
  if (client_ == nullptr) {
    KY_LOG(logging::kLevelError, L"Could not load pipelink.dll");
    return true;
  }
  pipelink::IConnPipeClient* connection = nullptr;
  // The connect gives up when the owner stops, so a stop never waits out the central's 5 s.
  const std::uint32_t result = client_->ConnectUntil(kCentralPipeName, stopEvent_, kCentralTimeoutMs, &connection);
  if (result != 0 || connection == nullptr) {
    KY_LOG(logging::kLevelError, L"Could not create a communication client.");
    return true;
  }
  {
    std::lock_guard<ky::CriticalSection> call(callLock_);
    std::lock_guard<ky::CriticalSection> hold(lock_);
    connection_ = connection;
  }
  (void)connection->RegisterCallback(&CBaseStartupManager::StaticNpcCallback, this, pipelink::kCallbackMessages);
  return true;
}

void CBaseStartupManager::Uninit() {
  KY_TRACE(L"CBaseStartupManager::Uninit");
  std::lock_guard<ky::CriticalSection> call(callLock_);
  pipelink::IConnPipeClient* connection = nullptr;
  {
    std::lock_guard<ky::CriticalSection> hold(lock_);
    std::swap(connection, connection_);
  }
  // Outside the pointer's lock: stopping joins the callback thread, which may be waiting for it.
  if (connection != nullptr) {
    (void)connection->Stop();
    client_->Close(connection);
  }
}

pipelink::IConnPipeClient* CBaseStartupManager::Connection() {
  std::lock_guard<ky::CriticalSection> hold(lock_);
  return connection_;
}

bool CBaseStartupManager::Connected() { return Connection() != nullptr; }

bool CBaseStartupManager::StopRequested() const {
  return stopEvent_ != nullptr && ::WaitForSingleObject(stopEvent_, 0) == WAIT_OBJECT_0;
}

std::string CBaseStartupManager::LastReport() {
  std::lock_guard<ky::CriticalSection> hold(lock_);
  return lastReport_;
}

std::uint32_t CBaseStartupManager::SendUpdateListRequest() {
  return ky::Guarded(L"CBaseStartupManager::SendUpdateListRequest", kErrorNoConnection, [&]() -> std::uint32_t {
    KY_TRACE(L"CBaseStartupManager::SendUpdateListRequest");
    std::lock_guard<ky::CriticalSection> call(callLock_);
    pipelink::IConnPipeClient* connection = Connection();
    if (connection == nullptr) return kErrorNoConnection;
    // Without the pointer's lock: the reply is read by the thread that runs the callback.
    pipelink::PipeMessage* reply = nullptr;
    const std::uint32_t result = connection->Send(kMsgUpdateRequest, nullptr, 0, &reply, 0, kCentralTimeoutMs);
    if (reply != nullptr) connection->FreeReply(reply);
    return result;
  });
}

std::uint32_t CBaseStartupManager::Post(const std::string& text) {
  KY_TRACE(L"CBaseStartupManager::Post");
  std::lock_guard<ky::CriticalSection> call(callLock_);
  pipelink::IConnPipeClient* connection = nullptr;
  {
    std::lock_guard<ky::CriticalSection> hold(lock_);
    lastReport_ = text;
    connection = connection_;
  }
  if (connection == nullptr) return kErrorNoConnection;
  // The narrow text goes with its terminating NUL, counted in the length.
  const std::uint32_t result =
      connection->Post(kMsgReport, text.c_str(), static_cast<std::uint32_t>(text.size() + 1), 0);
  if (result != 0) KY_LOG(logging::kLevelError, L"Could not post report message. Error %d.", static_cast<int>(result));
  return result;
}

std::uint32_t CBaseStartupManager::SendReportToCentral(const AppList& list) {
  KY_TRACE(L"CBaseStartupManager::SendReportToCentral");
  const std::string text = BuildReportJson(list, bootTime_);
  KY_LOG(logging::kLevelInfo, L"Report JSON: %S", text.c_str());
  return Post(text);
}

std::uint32_t CBaseStartupManager::SendImpactReportToCentral(const std::vector<boottime::ProcessImpact>& processes) {
  KY_TRACE(L"CBaseStartupManager::SendImpactReportToCentral");
  const std::string text = BuildImpactReportJson(processes);
  KY_LOG(logging::kLevelInfo, L"Report JSON: %S", text.c_str());
  return Post(text);
}

void CBaseStartupManager::FilterApps(const CAppsFilter& filter) {
  KY_TRACE(L"CBaseStartupManager::FilterApps");
  for (auto it = apps_.begin(); it != apps_.end();) {
    if (filter.Matches(it->first)) {
      KY_LOG(logging::kLevelInfo, L"remove %s", it->first.c_str());
      it = apps_.erase(it);
    } else {
      ++it;
    }
  }
}

std::uint32_t __cdecl CBaseStartupManager::StaticNpcCallback(void* context, const pipelink::PipeMessage* message) {
  return ky::Guarded(L"CBaseStartupManager::StaticNpcCallback", kErrorNoConnection, [&]() -> std::uint32_t {
    if (context == nullptr) {
      KY_TRACE(L"CBaseStartupManager::StaticNpcCallback");
      KY_LOG(logging::kLevelError, L"Instance was null.");
      return kErrorNoConnection;
    }
    if (message == nullptr) return ERROR_INVALID_DATA;
    return static_cast<CBaseStartupManager*>(context)->NpcCallback(*message);
  });
}

std::uint32_t CBaseStartupManager::NpcCallback(const pipelink::PipeMessage& message) {
  KY_TRACE(L"CBaseStartupManager::NpcCallback");
  if (message.id != kMsgAppList) return 0;
  if (pipelink::ExpectsReply(message)) {
    std::lock_guard<ky::CriticalSection> hold(lock_);
    if (connection_ != nullptr) (void)connection_->Acknowledge(&message, 0);
  }
  if (message.size == 0 || message.payload == nullptr) return 0;
  // The text must carry its own terminator: the last byte is overwritten whatever it held.
  std::string text(reinterpret_cast<const char*>(message.payload), message.size);
  text.back() = '\0';
  text.resize(std::strlen(text.c_str()));
  AppList list;
  if (BuildAppList(text, list) == 0) AppListReceived(list);
  return 0;
}

}  // namespace startup
