// CBaseStartupManager: the startup manager's side of "RemoteDispatcherPipe". It owns the
// connection to the central component, posts reports (1004), asks for an updated list (1006)
// and turns a received app list (1005) into apps for the derived manager.
//
// Lifecycle: construction with the connector client (null when pipelink.dll could not be
// had), Init, any number of builds, Uninit, destruction. The pipe callback runs on the
// connector's thread and only parses; everything else runs on the caller's thread.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/critical_section.h"
#include "lumera/pipelink.h"
#include "startup/apps_filter.h"
#include "startup/central_messages.h"

namespace startup {

class ICentraListUpdater {
 public:
  // Asks the central component for an updated app list; 0, the send's code, or 31 without a
  // connection.
  [[nodiscard]] virtual std::uint32_t SendUpdateListRequest() = 0;

 protected:
  ~ICentraListUpdater() = default;
};

class CBaseStartupManager : public ICentraListUpdater {
 public:
  explicit CBaseStartupManager(pipelink::IConnClient* client) : client_(client) {}
  CBaseStartupManager(const CBaseStartupManager&) = delete;
  CBaseStartupManager& operator=(const CBaseStartupManager&) = delete;

  std::uint32_t SendUpdateListRequest() override;
  // Given every app list that arrives and parses.
  virtual void AppListReceived(const AppList& list) = 0;
  virtual ~CBaseStartupManager();
  // The base's own step connects to the central component (failures are logged; the manager then
  // works without a connection); derived managers call it first.
  virtual bool Init() = 0;
  // Stops and closes the connection; safe to call twice.
  virtual void Uninit();
  // Builds the app list of the machine and reports it; 0 or an error code.
  [[nodiscard]] virtual std::uint32_t BuildAndReport() = 0;

  // Posts the report of `list`; 0, the post's code, or 31 without a connection.
  std::uint32_t SendReportToCentral(const AppList& list);
  // Posts the per-process form of the report; as SendReportToCentral.
  std::uint32_t SendImpactReportToCentral(const std::vector<boottime::ProcessImpact>& processes);
  // Erases every app whose key begins with one of the filter's paths.
  void FilterApps(const CAppsFilter& filter);

  static std::uint32_t __cdecl StaticNpcCallback(void* context, const pipelink::PipeMessage* message);
  std::uint32_t NpcCallback(const pipelink::PipeMessage& message);

  // The event that asks the manager's owner to stop (null: none); every wait of the manager
  // ends when it is set. Set before Init.
  void SetStopEvent(HANDLE stopEvent) { stopEvent_ = stopEvent; }
  // True once the stop event is set.
  bool StopRequested() const;

  bool Connected();
  // The last report text posted or, without a connection, built.
  std::string LastReport();
  const std::map<std::wstring, StartupItemExPtr>& Apps() const { return apps_; }

 protected:
  std::uint32_t Post(const std::string& text);

  std::map<std::wstring, StartupItemExPtr> apps_;
  std::uint32_t bootTime_ = 0;
  HANDLE stopEvent_ = nullptr;

 private:
  pipelink::IConnPipeClient* Connection();

  // Held by every use of the connection from the owner's side and by Uninit, so the
  // connection is never closed under a send; `lock_` guards only the pointer and the last
  // report, so the pipe callback never waits for a send to end.
  ky::CriticalSection callLock_;
  ky::CriticalSection lock_;
  pipelink::IConnClient* client_;
  pipelink::IConnPipeClient* connection_ = nullptr;
  std::string lastReport_;
};

}  // namespace startup
