#include "plugin/boottime_plugin.h"

#include <mutex>

#include "common/guard.h"
#include "common/log.h"
#include "lumera/interface_ids.h"
#include "plugin/settings_folder.h"
#include "users/ky_users.h"
#include "users/user_logon.h"

namespace boottime {
namespace {

constexpr std::uint32_t kHostMissing = 0xFFFFFFFF;
constexpr wchar_t kLoadUsage[] = L"LoadUsage";

}  // namespace

CBootTimePlugin::CBootTimePlugin(IClock& clock, IProcessCountersSource& counters)
    : clock_(clock), monitor_(clock, counters), diskPerformance_(clock, counters) {}

CBootTimePlugin::~CBootTimePlugin() {
  ky::GuardedVoid(L"boottime::CBootTimePlugin::~CBootTimePlugin", [&] {
    EndProcessingThread();
    report_.Join();
  });
}

void* CBootTimePlugin::GetInterface(const GUID& iid) {
  return KyInterfaceFor<IBootTime>(this, iid,
                                   {lumera::ids::IKyBaseInterface, lumera::ids::IServPlugin, lumera::ids::IBootTime});
}

std::uint32_t CBootTimePlugin::Init(IServMain* host) {
  KY_TRACE(L"boottime::CBootTimePlugin::Init");
  return ky::Guarded(L"boottime::CBootTimePlugin::Init", ky::kGeneralFailure, [&]() -> std::uint32_t {
    const std::uint32_t result = InitSteps(host);
    diskPerformance_.SetLoadUsage(loadUsage_.get());
    return result;
  });
}

std::uint32_t CBootTimePlugin::InitSteps(IServMain* host) {
  KY_TRACE(L"boottime::CBootTimePlugin::InitSteps");
  if (host == nullptr) {
    KY_LOG(logging::kLevelError, L"IServMain is null!");
    UnInit();
    return kHostMissing;
  }
  if (!velora::utils::CKYUsers::Instance().ReloadDll()) KY_LOG(logging::kLevelError, L"kyusers.dll not loaded");
  if (!logonInitialised_) logonInitialised_ = CUserLogon::Instance().Init(host) != 0;
  componentManager_ = host->GetComponentManager();
  if (componentManager_ == nullptr) {
    KY_LOG(logging::kLevelError, L"IPlgComponentManager is null");
    UnInit();
    return kHostMissing;
  }
  if (!loadUsage_) {
    const std::uint32_t result = loadUsage_.Acquire(componentManager_, kLoadUsage, lumera::ids::LoadUsagePlugin);
    if (result != 0) {
      KY_LOG(logging::kLevelError, L"GetPlugin %s failed 0x%x", kLoadUsage, result);
      UnInit();
      return result;
    }
  }
  if (!monitorEvent_) {
    monitorEvent_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!monitorEvent_) KY_LOG(logging::kLevelError, L"CreateEvent failed");
  }
  if (!checker_) checker_ = std::make_unique<CStartLauncherCheckExec>();
  if (CUserLogon::Instance().RegisterObserver(checker_.get()) != 0) {
    KY_LOG(logging::kLevelDebug, L"current-user checker already registered");
  }
  settingsFolder_ = plugin::ResolveSettingsFolder(componentManager_);
  if (!history_) {
    history_ = std::make_unique<BootHistoryListener>([this] { return MeasuredBootRecord(); },
                                                     [this](const BootRecord& record) { return AppendHistory(record); });
    (void)listeners_.Add(L"boottime::CBootTimePlugin::Init", history_.get());
  }
  const std::uint32_t result = monitor_.Init(host, &data_);
  if (result != 0) {
    KY_LOG(logging::kLevelError, L"BootTimeMonitor init err=%0x%x", result);
    UnInit();
    return result;
  }
  return 0;
}

std::uint32_t CBootTimePlugin::UnInit() {
  KY_TRACE(L"boottime::CBootTimePlugin::UnInit");
  return ky::Guarded(L"boottime::CBootTimePlugin::UnInit", ky::kGeneralFailure, [&]() -> std::uint32_t {
    // The threads end first: the monitor's members they use are freed just after.
    EndProcessingThread();
    report_.Join();
    monitor_.UnInit();
    if (history_) {
      (void)listeners_.Remove(history_.get());
      history_.reset();
    }
    diskPerformance_.SetLoadUsage(nullptr);
    loadUsage_.Reset();
    monitorEvent_.reset();
    if (checker_) {
      (void)CUserLogon::Instance().Observers().Unregister(checker_.get());
      checker_.reset();
    }
    if (logonInitialised_) {
      CUserLogon::Instance().Uninit();
      logonInitialised_ = false;
    }
    velora::utils::CKYUsers::Instance().UnloadDll();
    return 0;
  });
}

void CBootTimePlugin::EndProcessingThread() {
  if (!processingThread_) return;
  if (monitorEvent_) (void)::SetEvent(monitorEvent_.get());
  (void)::WaitForSingleObject(processingThread_.get(), INFINITE);
  processingThread_.reset();
}

std::uint32_t CBootTimePlugin::Start() {
  KY_TRACE(L"boottime::CBootTimePlugin::Start");
  return ky::Guarded(L"boottime::CBootTimePlugin::Start", ky::kGeneralFailure, [&]() -> std::uint32_t {
    // The monitor event is deliberately never reset: a Start after a Stop may reload the
    // files but ends a new measurement at its first wait and sends no report.
    EndProcessingThread();
    if (!logonStarted_) logonStarted_ = CUserLogon::Instance().Start();
    StartProcessingThread();
    return 0;
  });
}

void CBootTimePlugin::StartProcessingThread() {
  KY_TRACE(L"boottime::CBootTimePlugin::StartProcessingThread");
  processingThread_.reset(::CreateThread(nullptr, 0, &CBootTimePlugin::ProcessingThreadProc, this, 0, nullptr));
  if (!processingThread_) KY_LOG(logging::kLevelError, L"Error creating monitor thread");
}

std::uint32_t CBootTimePlugin::Stop() {
  KY_TRACE(L"boottime::CBootTimePlugin::Stop");
  return ky::Guarded(L"boottime::CBootTimePlugin::Stop", ky::kGeneralFailure, [&]() -> std::uint32_t {
    // The event goes first, then the joins: the service manager gives up on a service that
    // overruns its stop, and a report thread joined before the event would finish its whole
    // enumeration and its wait for the central component first.
    if (!::SetEvent(monitorEvent_.get())) {
      KY_LOG(logging::kLevelError, L"SetEvent MonitorEvent failed error code %lu", ::GetLastError());
    }
    monitor_.StopWatchers();
    report_.Join();
    if (processingThread_) {
      (void)::WaitForSingleObject(processingThread_.get(), INFINITE);
      processingThread_.reset();
    }
    // The run may have started its report between the first join and its own end.
    report_.Join();
    if (logonStarted_) {
      CUserLogon::Instance().Stop();
      logonStarted_ = false;
    }
    return 0;
  });
}

// Each query takes the status lock first and releases it before it takes the lock of the
// data it copies.
std::uint32_t CBootTimePlugin::OverallStatus() {
  std::lock_guard hold(statusLock_);
  return overallStatus_;
}

std::uint32_t CBootTimePlugin::GetBootTime(std::uint32_t* milliseconds) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootTime");
  if (milliseconds == nullptr) return ERROR_INVALID_DATA;
  const std::uint32_t overall = OverallStatus();
  if (overall != kStatusAvailable) return overall;
  const std::uint32_t status = monitor_.Result(milliseconds);
  KY_LOG(logging::kLevelInfo, L"boot time = %d", *milliseconds);
  return status;
}

std::uint32_t CBootTimePlugin::GetTotalBootImpact(BootCounters* total) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetTotalBootImpact");
  if (total == nullptr) return ERROR_INVALID_DATA;
  const std::uint32_t overall = OverallStatus();
  if (overall != kStatusAvailable) return overall;
  return analyser_.Summary(total);
}

std::uint32_t CBootTimePlugin::GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootImpact");
  if (impacts == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimePlugin::GetBootImpact", ky::kGeneralFailure, ky::kOutOfMemory,
                     [&]() -> std::uint32_t {
                       const std::uint32_t overall = OverallStatus();
                       if (overall != kStatusAvailable) return overall;
                       return analyser_.GetImpacts(key, *impacts);
                     });
}

std::uint32_t CBootTimePlugin::GetDiskSpeed(DiskSpeed* speed) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetDiskSpeed");
  if (speed == nullptr) return ERROR_INVALID_DATA;
  return diskPerformance_.GetResult(speed);
}

std::uint32_t CBootTimePlugin::AddListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimePlugin::AddListener");
  return listeners_.Add(L"boottime::CBootTimePlugin::AddListener", listener);
}

std::uint32_t CBootTimePlugin::RemoveListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimePlugin::RemoveListener");
  return listeners_.Remove(listener);
}

}  // namespace boottime
