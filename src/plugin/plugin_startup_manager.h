// boottime::CPluginStartupManager: the plug-in's startup manager. It places the backup store
// in the user's roaming folder, builds the list of startup apps of the machine with their
// state and boot times, leaves out the maker's own apps, and reports the list to the central
// component. Built, initialised and used on one thread (the plug-in's processing thread or a
// tool's main thread); only the base's pipe callback runs elsewhere.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "boottime/comm/connector_loader.h"
#include "lumera/boottime.h"
#include "startup/action_exec.h"
#include "startup/apps_filter.h"
#include "startup/startup_items.h"
#include "startup/startup_manager.h"
#include "startup/storage_document.h"

namespace boottime {

class CPluginStartupManager final : public startup::CBaseStartupManager {
 public:
  // Loads pipelink.dll from `connectorPath` for the connection; `productInfo` gives the host's
  // product-information object for the apps filter; `agentLibrary` names AppAgentDP.dll.
  explicit CPluginStartupManager(startup::CAppsFilter::ProductInfoSource productInfo,
                                 const std::wstring& connectorPath = CConnectorLibrary::DefaultPath(),
                                 std::wstring agentLibrary = appagentdp::kLibraryName);
  ~CPluginStartupManager() override;

  // Received lists are parsed and validated by the base, then dropped: nothing uses them yet.
  void AppListReceived(const startup::AppList&) override {}
  // Connects, chooses the sources (the console user's and the machine's) and the actions, and
  // places the store ("Storage.json" in the user's roaming Nexalon\Lumera folder; nowhere,
  // logged, when no user is logged on); always true.
  bool Init() override;
  // Enumerates, filters, reads the store back (at most kMaxLoadedItems records over all
  // sections, dropping those whose entry is gone), describing each target once, takes
  // the boot times and posts the report; 0, the post's code, 31 without a connection, or
  // ERROR_NO_TOKEN (logged, nothing sent) when still no user's store can be placed, or 995
  // (nothing sent) when the stop event was set between its steps.
  [[nodiscard]] std::uint32_t BuildAndReport() override;

  // The boot time reported as "boot_total_time".
  void SetBootTime(std::uint32_t bootTime) { bootTime_ = bootTime; }
  // The processes measured in the last boot, from which the apps' boot times are taken.
  void SetBootImpacts(std::vector<ProcessImpact> impacts) { impacts_ = std::move(impacts); }
  const std::wstring& StorageFolder() const { return storageFolder_; }

 private:
  CPluginStartupManager(std::unique_ptr<CConnectorLibrary> connector,
                        startup::CAppsFilter::ProductInfoSource productInfo, std::wstring agentLibrary);
  static std::unique_ptr<CConnectorLibrary> LoadConnector(const std::wstring& path);

  std::uint32_t PlaceStore();
  void Enumerate(const startup::StartupSourceList& sources);
  bool AddApp(const startup::StartupItemPtr& item, startup::StartupSourceKind kind, std::int32_t status);
  void ReadBackStore();
  void ApplyBootTimes(const std::vector<startup::storage::BootTimeRecord>& records);
  void ApplyBootImpacts();

  std::unique_ptr<CConnectorLibrary> connector_;
  startup::CAppsFilter filter_;
  std::unique_ptr<startup::CStartupItems> sources_;
  std::unique_ptr<startup::StartupAppsActionExec> exec_;
  std::wstring storageFolder_;
  std::vector<ProcessImpact> impacts_;
};

}  // namespace boottime
