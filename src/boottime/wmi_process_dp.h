// Process notifications from the host's "wmiprocessdp" plug-in.
#pragma once

#include "boottime/process_dp.h"
#include "common/plugin_ref.h"
#include "lumera/wmiprocessdp.h"

namespace boottime {

class WmiProcessDP final : public IProcessDP, public IWMIProcessDPEvents {
 public:
  static constexpr wchar_t kPluginName[] = L"wmiprocessdp";

  WmiProcessDP() = default;
  WmiProcessDP(const WmiProcessDP&) = delete;
  WmiProcessDP& operator=(const WmiProcessDP&) = delete;
  // Gives the plug-in back if UnInit did not; Stop undoes Start.
  ~WmiProcessDP() override = default;

  [[nodiscard]] bool Init(IServMain* host) override;
  void UnInit() override;
  [[nodiscard]] bool Start(IProcessDPObserver* observer) override;
  void Stop() override;

  void OnProcessStarted(const WMIProcessInfo* info) override;
  void OnProcessEnded(const WMIProcessInfo* info) override;

 private:
  ProcessEvent ToEvent(const WMIProcessInfo* info) const;
  // Logs the notification under `function` and passes it on as a start or a stop.
  void Forward(const wchar_t* function, const WMIProcessInfo* info, bool started);

  ky::PluginRef<IWMIProcessDP> plugin_;
  IProcessDPObserver* observer_ = nullptr;
};

}  // namespace boottime
