#include "plugin/central_report.h"

#include <utility>

#include "common/guard.h"
#include "common/log.h"
#include "common/plugin_ref.h"
#include "common/stop_wait.h"
#include "lumera/interface_ids.h"
#include "lumera/ky_list.h"
#include "lumera/productinfo.h"
#include "plugin/plugin_startup_manager.h"

namespace boottime {
namespace {


}  // namespace

void CentralReport::Start(HANDLE stopEvent, IPlgComponentManager* manager, IBootTime& results) {
  Join();
  std::lock_guard hold(lock_);
  if (ky::WaitForStop(stopEvent, 0)) return;
  thread_ = std::thread([stopEvent, manager, target = &results] { Run(stopEvent, manager, *target); });
}

void CentralReport::Join() {
  std::thread report;
  {
    std::lock_guard hold(lock_);
    report = std::move(thread_);
  }
  if (report.joinable()) report.join();
}

void CentralReport::Run(HANDLE stopEvent, IPlgComponentManager* manager, IBootTime& results) {
  // Logged under the plug-in's name, where the report has always been logged.
  KY_TRACE(L"boottime::CBootTimePlugin::SendReportToCentral");
  ky::GuardedVoid(L"boottime::CBootTimePlugin::SendReportToCentral", [&] {
    ky::PluginRef<IProductInfo> info;
    if (manager != nullptr) (void)info.Acquire(manager, lumera::kProductInfoName, lumera::ids::ProductInfoPlugin);
    if (ky::WaitForStop(stopEvent, 0)) return;
    IProductInfo* product = info.get();
    CPluginStartupManager startupManager([product] { return product; });
    startupManager.SetStopEvent(stopEvent);
    (void)startupManager.Init();
    ky::List<ProcessImpact> impacts;
    if (!ky::WaitForStop(stopEvent, 0) && results.GetBootImpact(&impacts, nullptr) == kStatusAvailable) {
      const std::uint32_t sent = startupManager.SendImpactReportToCentral(impacts.Items());
      if (sent != 0) KY_LOG(logging::kLevelWarning, L"process impact report not sent 0x%x", sent);
      startupManager.SetBootImpacts(std::move(impacts.Items()));
    }
    std::uint32_t bootTime = 0;
    if (results.GetBootTime(&bootTime) == kStatusAvailable) startupManager.SetBootTime(bootTime);
    if (!ky::WaitForStop(stopEvent, 0)) {
      const std::uint32_t sent = startupManager.BuildAndReport();
      if (sent != 0) KY_LOG(logging::kLevelWarning, L"startup apps report not sent 0x%x", sent);
    }
    startupManager.Uninit();
  });
}

}  // namespace boottime
