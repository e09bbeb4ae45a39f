// Process notifications from the host's "wmiprocessdp" plug-in.
#pragma once

#include "boottime/process_dp.h"
#include "lumera/wmiprocessdp.h"

namespace boottime {

class WmiProcessDP final : public IProcessDP, public IWMIProcessDPEvents {
 public:
  static constexpr wchar_t kPluginName[] = L"wmiprocessdp";

  WmiProcessDP() = default;
  WmiProcessDP(const WmiProcessDP&) = delete;
  WmiProcessDP& operator=(const WmiProcessDP&) = delete;
  // Releases nothing by itself: Stop and UnInit undo Start and Init.
  ~WmiProcessDP() override = default;

  [[nodiscard]] bool Init(IServMain* host) override;
  void UnInit() override;
  [[nodiscard]] bool Start(IProcessDPObserver* observer) override;
  void Stop() override;

  void OnProcessStarted(const WMIProcessInfo* info) override;
  void OnProcessEnded(const WMIProcessInfo* info) override;

 private:
  ProcessEvent ToEvent(const WMIProcessInfo* info) const;

  IPlgComponentManager* componentManager_ = nullptr;
  IWMIProcessDP* plugin_ = nullptr;
  IProcessDPObserver* observer_ = nullptr;
};

}  // namespace boottime
