// Receives process notifications on the source's thread and queues them, so that they are
// applied to the followed processes on the monitor's own thread.
#pragma once

#include <memory>
#include <vector>

#include "boottime/boot_time_monitor.h"
#include "boottime/process_dp.h"
#include "boottime/processes.h"
#include "common/critical_section.h"

namespace boottime {

class BootTimeMonitor::ProcessesMonitor final : public IProcessDPObserver {
 public:
  explicit ProcessesMonitor(IServMain* host);
  // Stops and releases the notification source if Stop was not called.
  ~ProcessesMonitor();
  ProcessesMonitor(const ProcessesMonitor&) = delete;
  ProcessesMonitor& operator=(const ProcessesMonitor&) = delete;

  // Starts notifications from the host's "wmiprocessdp"; false without a host or when the
  // plug-in cannot be reached (logged).
  [[nodiscard]] bool Start();
  // Ends notifications and gives the plug-in back; no observer call follows its return.
  void Stop();

  void OnProcessStarted(const ProcessEvent& event) override;
  void OnProcessStopped(const ProcessEvent& event) override;

  // Swaps both queues out whole under the lock.
  void TakeEvents(std::vector<ProcessEvent>& started, std::vector<ProcessEvent>& stopped);
  // One cycle's notifications: takes the queues and applies them outside the lock, Add for
  // every start (only when `followStarts`; the others are dropped), then Rem for every stop,
  // each in queue order, with the step lines logged under `function`.
  void ApplyEvents(Processes& processes, bool followStarts, const wchar_t* function);

 private:
  IServMain* host_;
  std::unique_ptr<IProcessDP> source_;
  ky::CriticalSection lock_;
  std::vector<ProcessEvent> started_;
  std::vector<ProcessEvent> stopped_;
};

}  // namespace boottime
