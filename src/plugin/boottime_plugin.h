// The "boottime" object: owns the boot-time measurement of the host's current run and
// answers the IBootTime queries. Queries return 1 until a processing run has finished.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "common/callback_list.h"
#include "common/critical_section.h"
#include "common/unique_handle.h"
#include "lumera/boottime.h"
#include "plugin/startup_manager_observer.h"

namespace boottime {

class CBootTimePlugin final : public IBootTime, public IStartupManagerObserver {
 public:
  CBootTimePlugin();
  ~CBootTimePlugin();
  CBootTimePlugin(const CBootTimePlugin&) = delete;
  CBootTimePlugin& operator=(const CBootTimePlugin&) = delete;

  void* GetInterface(const GUID& iid) override;
  std::uint32_t Init(IServMain* host) override;
  std::uint32_t UnInit() override;
  std::uint32_t Start() override;
  std::uint32_t Stop() override;

  std::uint32_t GetBootTime(std::uint32_t* milliseconds) override;
  std::uint32_t GetTotalBootImpact(BootCounters* total) override;
  std::uint32_t GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) override;
  std::uint32_t GetDiskSpeed(DiskSpeed* speed) override;
  std::uint32_t AddListener(IBootTimeEvents* listener) override;
  std::uint32_t RemoveListener(IBootTimeEvents* listener) override;
  void OnDataAnalysed(std::uint32_t status) override;

  void OnStartupAppsChanged() override {}
  void OnAppListReceived(std::uint32_t) override {}
  void OnReportSent(std::uint32_t) override {}
  void OnUpdateRequested(std::uint32_t) override {}

  const std::wstring& SettingsFolder() const { return settingsFolder_; }

 private:
  void GetSettingsFolderPath();
  std::uint32_t OverallStatus();

  std::wstring settingsFolder_;
  ky::unique_handle monitorEvent_;
  IPlgComponentManager* componentManager_ = nullptr;  // the host's; never released
  void* loadUsage_ = nullptr;
  std::uint32_t overallStatus_ = kStatusNotYetKnown;
  ky::CriticalSection statusLock_;
  CallbackList<IBootTimeEvents*> listeners_;
};

}  // namespace boottime
