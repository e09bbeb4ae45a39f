// Decides when the boot has finished and how long it took. Runs on the boot-time plug-in's
// processing thread only when the host starts within the first minute of the machine's
// life; follows the processes that run during the boot, samples them once a second, and
// watches the system's own boot event and the first logon.
//
// Status and boot time are written under the monitor's lock and may be read from any thread
// through Result; everything else runs on the thread that calls Start.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "boottime/boot_history_file.h"
#include "boottime/boot_info_file.h"
#include "boottime/clock.h"
#include "boottime/process_counters_source.h"
#include "common/critical_section.h"
#include "lumera/ky_base.h"
#include "lumera/sessionchange.h"

namespace boottime {

class BootTimeData;

class BootTimeMonitor {
 public:
  class Processes;
  class ProcessesMonitor;
  class WinBootEvent;
  class UserLogonObserver;

  static constexpr std::uint32_t kLateStartMs = 60000;
  static constexpr std::uint32_t kThresholdMs = 7200000;
  static constexpr DWORD kCycleMs = 1000;
  static constexpr std::uint32_t kAfterLogonMs = 60000;
  static constexpr std::uint32_t kBusyPercent = 20;
  static constexpr std::uint32_t kStatusFound = 0;
  static constexpr std::uint32_t kStatusNotYetKnown = 1;
  static constexpr std::uint32_t kStatusNone = 2;
  static constexpr const wchar_t* kFileName = kBootInfoFileName;

  explicit BootTimeMonitor(IClock& clock = SystemClock::Instance(),
                           IProcessCountersSource& counters = SystemCountersSource::Instance());
  ~BootTimeMonitor();
  BootTimeMonitor(const BootTimeMonitor&) = delete;
  BootTimeMonitor& operator=(const BootTimeMonitor&) = delete;

  // Creates the processes list, the processes monitor, the logon observer (already logged
  // when the users library reports a console user) and the boot event watcher. Returns 0.
  [[nodiscard]] std::uint32_t Init(IServMain* host, BootTimeData* data);
  // Stops the boot event watcher, unregisters the logon observer and frees what Init made.
  void UnInit();

  // Monitors until the boot is judged finished, the two-hour limit passes or `stopEvent` is
  // set (any wait result but a time-out counts as set); then Result gives status and time.
  void Start(HANDLE stopEvent);
  // True when monitoring must end; sets the status (and the event's time) when it decides.
  [[nodiscard]] bool IsBootFinished();
  // The end of the last busy period over all sampled processes (ms since start), 0 if none.
  [[nodiscard]] std::uint32_t AnalyzeSamples();
  // The boot time from the busy end M, the "time system" mark S and the logon time L.
  [[nodiscard]] static std::uint32_t ComputeBootTime(std::uint32_t m, std::uint32_t s, std::uint32_t l);

  // Writes the boot time and the current system start time into `folder` + kFileName;
  // a failure is logged and changes nothing.
  void StoreBootTimeOnDisk(const std::wstring& folder);
  // Reads the boot time back: status 0, or status 2 (logged) with the boot time unchanged.
  void LoadLastBootTimeFromDisk(const std::wstring& folder);

  // "Listing processes", "pid,ppid,name" per followed process, "Done", a line each.
  void WriteProcessListing(std::wostream& out) const;

  // The status; writes the boot time to *bootTime when given.
  std::uint32_t Result(std::uint32_t* bootTime = nullptr);

  // How the last Start ended, for the boot history: what ended it, the system's own boot time
  // when its event did, and the logon time then (0 when nobody had logged on).
  struct Ending {
    BootEnd end = BootEnd::kTwoHourLimit;
    std::optional<std::uint32_t> windowsBootTime;
    std::uint32_t logonTime = 0;
  };
  Ending LastEnding();
  // Stops the boot event watcher and unregisters the logon observer (the plug-in's Stop).
  void StopWatchers();

  // For tests only: what a test drives or inspects between cycles.
  UserLogonObserver* LogonObserver() { return logonObserver_.get(); }
  WinBootEvent* BootEvent() { return winBootEvent_.get(); }
  Processes* ProcessList() { return processes_.get(); }
  ProcessesMonitor* ProcessEvents() { return processesMonitor_.get(); }
  std::uint32_t TimeSystemMark() const { return timeSystem_; }

 private:
  void SetStatus(std::uint32_t status);

  IClock& clock_;
  IProcessCountersSource& counters_;
  BootTimeData* data_ = nullptr;
  ky::CriticalSection lock_;
  std::uint32_t status_ = kStatusNotYetKnown;
  std::uint32_t bootTime_ = 0;
  std::unique_ptr<WinBootEvent> winBootEvent_;
  std::unique_ptr<UserLogonObserver> logonObserver_;
  std::unique_ptr<ProcessesMonitor> processesMonitor_;
  std::unique_ptr<Processes> processes_;
  std::uint32_t timeSystem_ = 0;
  Ending ending_;  // under lock_
};

// Learns the first logon's tick count from the logon tracker; called on its thread.
class BootTimeMonitor::UserLogonObserver final : public IUserLogonObserver {
 public:
  void OnLogon(std::uint32_t time, const wchar_t* user) override;
  void OnLogoff(std::uint32_t time, const wchar_t* user) override;

  std::uint32_t LogonTime() const { return logonTime_.load(std::memory_order_relaxed); }
  bool Logged() const { return logged_.load() != 0; }
  void SetLogged() { logged_.store(1); }

 private:
  std::atomic<std::uint32_t> logonTime_{0};
  std::atomic<std::uint32_t> logged_{0};
};

}  // namespace boottime
