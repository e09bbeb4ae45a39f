// The "boottime" object: owns the boot-time measurement of the host's current run and
// answers the IBootTime queries. Queries return 1 until a processing run has finished.
//
// Threads: the host's thread calls the lifecycle methods; Start runs one processing thread,
// which at its end may start one report thread; pipe threads call the queries at any time.
// Stop (and UnInit) end and join both threads; the monitor event is their one stop signal.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "boottime/boot_history_listener.h"
#include "boottime/boot_time_analyser_state.h"
#include "boottime/boot_time_data.h"
#include "boottime/boot_time_disk_performance.h"
#include "boottime/boot_time_listeners.h"
#include "boottime/boot_time_monitor.h"
#include "boottime/clock.h"
#include "boottime/process_counters_source.h"
#include "common/critical_section.h"
#include "common/plugin_ref.h"
#include "common/unique_handle.h"
#include "lumera/boottime.h"
#include "lumera/loadusage.h"
#include "plugin/central_report.h"
#include "plugin/startup_manager_observer.h"
#include "users/start_launcher_check.h"

namespace boottime {

class CBootTimePlugin final : public IBootTime, public IStartupManagerObserver {
 public:
  explicit CBootTimePlugin(IClock& clock = SystemClock::Instance(),
                           IProcessCountersSource& counters = SystemCountersSource::Instance());
  ~CBootTimePlugin();
  CBootTimePlugin(const CBootTimePlugin&) = delete;
  CBootTimePlugin& operator=(const CBootTimePlugin&) = delete;

  void* GetInterface(const GUID& iid) override;
  // 0, 0xFFFFFFFF without a host or component manager, or the failing GetPlugin's code.
  std::uint32_t Init(IServMain* host) override;
  std::uint32_t UnInit() override;
  // Starts one processing run; always 0.
  std::uint32_t Start() override;
  // Ends the run and the report thread and waits for both; always 0.
  std::uint32_t Stop() override;

  std::uint32_t GetBootTime(std::uint32_t* milliseconds) override;
  std::uint32_t GetTotalBootImpact(BootCounters* total) override;
  std::uint32_t GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) override;
  std::uint32_t GetDiskSpeed(DiskSpeed* speed) override;
  std::uint32_t AddListener(IBootTimeEvents* listener) override;
  std::uint32_t RemoveListener(IBootTimeEvents* listener) override;
  void OnDataAnalysed(std::uint32_t status) override;
  // The newest `count` records of "boot_history.jsonl"; 0 (also with no history yet), or
  // ERROR_FILE_TOO_LARGE for a file over its bound.
  std::uint32_t GetBootHistory(std::uint32_t count, ky::IList<std::string>* records) override;

  void OnStartupAppsChanged() override {}
  void OnAppListReceived(std::uint32_t) override {}
  void OnReportSent(std::uint32_t) override {}
  void OnUpdateRequested(std::uint32_t) override {}

  const std::wstring& SettingsFolder() const { return settingsFolder_; }
  // The stored start of the system (ms since 1601) from the last boot time file, 0 when unknown.
  std::int64_t GetLastSystemStartTime();

 private:
  std::uint32_t InitSteps(IServMain* host);
  void StartProcessingThread();
  static DWORD WINAPI ProcessingThreadProc(LPVOID context);
  void ProcessingThread();
  void DumpRun();
  bool StopRequested() const;
  void EndProcessingThread();
  std::uint32_t OverallStatus();
  std::wstring HistoryFile() const;
  // The record of the run that just ended when it measured a boot; nullopt otherwise.
  std::optional<BootRecord> MeasuredBootRecord();
  std::uint32_t AppendHistory(const BootRecord& record);

  IClock& clock_;
  std::wstring settingsFolder_;
  ky::unique_handle processingThread_;
  ky::unique_handle monitorEvent_;
  BootTimeMonitor monitor_;  // owns its logon observer and its processes
  BootTimeData data_;
  BootTimeDiskPerformance diskPerformance_;
  AnalyserState analyser_;
  BootTimeListeners listeners_;
  bool measuredRun_ = false;  // this run analysed a boot rather than reloading; processing thread only
  std::unique_ptr<BootHistoryListener> history_;
  // The history's lines as last read or written: a query copies them instead of parsing the file.
  ky::CriticalSection historyLock_;
  std::optional<std::vector<std::string>> historyLines_;
  IPlgComponentManager* componentManager_ = nullptr;  // the host's; never released
  ky::PluginRef<ILoadUsage> loadUsage_;
  std::uint32_t overallStatus_ = kStatusNotYetKnown;
  ky::CriticalSection statusLock_;
  std::unique_ptr<CStartLauncherCheckExec> checker_;
  bool logonInitialised_ = false;
  bool logonStarted_ = false;
  CentralReport report_;  // declared last, so that it is joined before what it reads goes
};

}  // namespace boottime
