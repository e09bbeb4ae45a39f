#include "boottime/boot_time_monitor.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "boottime/boot_time_data.h"
#include "boottime/process_utils.h"
#include "boottime/processes.h"
#include "boottime/processes_monitor.h"
#include "boottime/boot_event_watch.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/safe_file.h"
#include "common/stop_wait.h"
#include "users/user_logon.h"

namespace boottime {
namespace {

// Load in percent over `interval` ms; a delta outside 0..interval counts 0.
std::uint32_t Percent(std::int32_t before, std::int32_t after, std::int64_t interval) {
  const std::int64_t delta = static_cast<std::int64_t>(after) - before;
  if (delta < 0 || delta > interval) return 0;
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(delta) * 100u / static_cast<std::uint64_t>(interval));
}

}  // namespace

void BootTimeMonitor::UserLogonObserver::OnLogon(std::uint32_t time, const wchar_t*) {
  KY_TRACE(L"boottime::BootTimeMonitor::UserLogonObserver::OnLogon");
  logonTime_.store(time, std::memory_order_relaxed);
  std::uint32_t expected = 0;
  logged_.compare_exchange_strong(expected, 1);
  KY_LOG(logging::kLevelInfo, L"login time = %d", time);
}

void BootTimeMonitor::UserLogonObserver::OnLogoff(std::uint32_t, const wchar_t*) {
  KY_TRACE(L"boottime::BootTimeMonitor::UserLogonObserver::OnLogoff");
  logonTime_.store(0, std::memory_order_relaxed);
}

BootTimeMonitor::BootTimeMonitor(IClock& clock, IProcessCountersSource& counters)
    : clock_(clock), counters_(counters) {}

BootTimeMonitor::~BootTimeMonitor() { UnInit(); }

std::uint32_t BootTimeMonitor::Init(IServMain* host, BootTimeData* data) {
  KY_TRACE(L"boottime::BootTimeMonitor::Init");
  data_ = data;
  processes_ = std::make_unique<Processes>(data, clock_, counters_);
  processesMonitor_ = std::make_unique<ProcessesMonitor>(host);
  logonObserver_ = std::make_unique<UserLogonObserver>();
  if (CUserLogon::IsUserLogged()) logonObserver_->SetLogged();
  winBootEvent_ = std::make_unique<WinBootEvent>(clock_);
  return 0;
}

void BootTimeMonitor::StopWatchers() {
  KY_TRACE(L"boottime::BootTimeMonitor::StopWatchers");
  if (logonObserver_) (void)CUserLogon::Instance().Observers().Unregister(logonObserver_.get());
  if (winBootEvent_) winBootEvent_->Stop();
}

void BootTimeMonitor::UnInit() {
  KY_TRACE(L"boottime::BootTimeMonitor::UnInit");
  StopWatchers();
  if (processesMonitor_) processesMonitor_->Stop();
  winBootEvent_.reset();
  processesMonitor_.reset();
  processes_.reset();
  logonObserver_.reset();
}

void BootTimeMonitor::SetStatus(std::uint32_t status) {
  std::lock_guard hold(lock_);
  status_ = status;
}

BootTimeMonitor::Ending BootTimeMonitor::LastEnding() {
  std::lock_guard hold(lock_);
  return ending_;
}

std::uint32_t BootTimeMonitor::Result(std::uint32_t* bootTime) {
  std::lock_guard hold(lock_);
  if (bootTime != nullptr) *bootTime = bootTime_;
  return status_;
}

void BootTimeMonitor::Start(HANDLE stopEvent) {
  KY_TRACE(L"boottime::BootTimeMonitor::Start");
  ky::GuardedVoid(L"boottime::BootTimeMonitor::Start", [&] {
    if (!processes_ || !processesMonitor_ || !logonObserver_ || !winBootEvent_) {
      KY_LOG(logging::kLevelError, L"not initialised");
      SetStatus(kStatusNone);
      return;
    }
    if (clock_.TickCount() > kLateStartMs) {
      KY_LOG(logging::kLevelInfo, L"start too late for boot time");
      SetStatus(kStatusNone);
      return;
    }
    (void)CUserLogon::Instance().RegisterObserver(logonObserver_.get());
    (void)winBootEvent_->Start();
    for (std::uint32_t pid : utils::GetAllProcessesPids()) (void)processes_->Add(pid);
    if (!processesMonitor_->Start()) KY_LOG(logging::kLevelWarning, L"processes monitor not started");
    timeSystem_ = 0;
    {
      std::lock_guard hold(lock_);
      ending_ = Ending{};
    }
    std::uint32_t emptySince = 0;  // tick count when the list was last found empty, 0 while not
    for (;;) {
      const bool logged = logonObserver_->Logged();
      KY_LOG(logging::kLevelDebug, L"User logged = %s", logged ? L"TRUE" : L"FALSE");
      // A minute past logon new processes are deliberately no longer followed.
      const bool followStarts = !(logged && clock_.TickCount() - logonObserver_->LogonTime() >= kAfterLogonMs);
      processesMonitor_->ApplyEvents(*processes_, followStarts, kyTrace_.Name());
      processes_->Update();

      if (ky::WaitMeansStop(clock_.WaitForStop(stopEvent, kCycleMs))) {
        SetStatus(kStatusNone);
        return;
      }
      if (IsBootFinished()) return;
      if (processes_->Count() != 0) {
        emptySince = 0;
        continue;
      }
      if (emptySince == 0) emptySince = clock_.TickCount();

      KY_LOG(logging::kLevelDebug, L"empty processes list");
      if (logonObserver_->Logged()) {
        const std::uint32_t now = clock_.TickCount();
        if (now - logonObserver_->LogonTime() > kAfterLogonMs) {
          KY_LOG(logging::kLevelInfo, L"user logged & empty processes list => stop monitor processes");
          KY_LOG(logging::kLevelInfo, L"now=%d, logon time=%d, system time=%d", now, logonObserver_->LogonTime(),
                 timeSystem_);
          // Told apart for the history: a list that was already empty when the minute after the
          // logon ran out ended at that limit; one that emptied later ended by going quiet.
          std::lock_guard hold(lock_);
          ending_.end = emptySince - logonObserver_->LogonTime() <= kAfterLogonMs ? BootEnd::kLogonLimit
                                                                                  : BootEnd::kQuietAfterLogon;
          ending_.logonTime = logonObserver_->LogonTime();
          status_ = kStatusFound;
          return;
        }
      } else if (timeSystem_ == 0) {
        timeSystem_ = clock_.TickCount();
        KY_LOG(logging::kLevelInfo, L"time system %d", timeSystem_);
      }
    }
  });
  if (processesMonitor_) processesMonitor_->Stop();
  if (Result() != kStatusFound) return;
  const std::uint32_t busyEnd = AnalyzeSamples();
  const std::uint32_t bootTime = ComputeBootTime(busyEnd, timeSystem_, logonObserver_->LogonTime());
  {
    std::lock_guard hold(lock_);
    bootTime_ = bootTime;
  }
  KY_LOG(logging::kLevelInfo, L"boot time = %d", bootTime);
}

bool BootTimeMonitor::IsBootFinished() {
  KY_TRACE(L"boottime::BootTimeMonitor::IsBootFinished");
  const std::uint32_t tick = clock_.TickCount();
  if (tick > kThresholdMs) {
    KY_LOG(logging::kLevelInfo, L"Threshhold since system started reached; Stopping monitor; tick count=%d threshold=%d",
           tick, kThresholdMs);
    SetStatus(kStatusNone);
    return true;
  }
  if (!winBootEvent_ || !winBootEvent_->Done()) return false;
  switch (winBootEvent_->ResultState()) {
    case WinBootEvent::kResultFound: {
      const std::uint32_t time = winBootEvent_->BootTime();
      {
        std::lock_guard hold(lock_);
        bootTime_ = time;
        status_ = kStatusFound;
        ending_.end = BootEnd::kWindowsEvent;
        ending_.windowsBootTime = time;
        ending_.logonTime = logonObserver_ ? logonObserver_->LogonTime() : 0;
      }
      KY_LOG(logging::kLevelInfo, L"WinBootEvent time=%d", time);
      return true;
    }
    case WinBootEvent::kResultFailed:
      KY_LOG(logging::kLevelInfo, L"WinBootEvent retry");
      winBootEvent_->Retry();
      return false;
    default:
      return false;
  }
}

std::uint32_t BootTimeMonitor::AnalyzeSamples() {
  KY_TRACE(L"boottime::BootTimeMonitor::AnalyzeSamples");
  std::vector<std::vector<Sample>> series;
  if (data_ != nullptr) data_->ForEachProcess([&](const ProcessSamples& p) { series.push_back(p.samples); });
  std::uint32_t maxTime = 0;
  for (const std::vector<Sample>& samples : series) {
    if (samples.empty() || static_cast<std::uint32_t>(samples.back().time) < maxTime) continue;
    for (std::size_t i = samples.size() - 1; i > 0; --i) {
      const Sample& a = samples[i - 1];
      const Sample& b = samples[i];
      bool stop = a.time >= b.time;
      if (!stop) {
        const std::int64_t interval = static_cast<std::int64_t>(b.time) - a.time;
        stop = Percent(a.cpuKernelTime, b.cpuKernelTime, interval) + Percent(a.cpuUserTime, b.cpuUserTime, interval) >=
               kBusyPercent;
      }
      if (stop) {
        maxTime = std::max(maxTime, static_cast<std::uint32_t>(b.time));
        break;
      }
    }
  }
  KY_LOG(logging::kLevelInfo, L"max_time = %d", maxTime);
  return maxTime;
}

std::uint32_t BootTimeMonitor::ComputeBootTime(std::uint32_t m, std::uint32_t s, std::uint32_t l) {
  if (s == 0) return m;
  return m >= l ? s + (m - l) : std::max(m, s);
}

void BootTimeMonitor::WriteProcessListing(std::wostream& out) const {
  out << L"Listing processes\n";
  if (processes_) {
    for (const TrackedProcess& process : processes_->List()) {
      out << process.pid << L',' << process.ppid << L',' << process.name << L'\n';
    }
  }
  out << L"Done\n";
}

void BootTimeMonitor::StoreBootTimeOnDisk(const std::wstring& folder) {
  KY_TRACE(L"boottime::BootTimeMonitor::StoreBootTimeOnDisk");
  std::lock_guard hold(lock_);
  const std::int64_t systemStart = SystemStartTime(clock_);
  KY_LOG(logging::kLevelInfo, L"systemStartTime %lld", systemStart);
  const std::wstring path = folder + kFileName;
  const std::string text = EncodeBootInfo(systemStart, static_cast<std::int32_t>(bootTime_));
  if (const std::uint32_t written = ky::WriteFileWhole(path, text); written != 0) {
    KY_LOG(logging::kLevelError, L"WriteFileWhole %s failed 0x%x", path.c_str(), written);
    KY_LOG(logging::kLevelError, L"Failed to save boot time data in JSON");
  }
}

void BootTimeMonitor::LoadLastBootTimeFromDisk(const std::wstring& folder) {
  KY_TRACE(L"boottime::BootTimeMonitor::LoadLastBootTimeFromDisk");
  std::lock_guard hold(lock_);
  BootInfoRecord record;
  std::string error;
  const BootInfoStatus read = ReadBootInfoFile(folder + kFileName, record, error);
  status_ = kStatusNone;
  if (read == BootInfoStatus::kCannotOpen) {
    KY_LOG(logging::kLevelError, L"Can't find last boot information data");
  } else if (read == BootInfoStatus::kTooLarge || read == BootInfoStatus::kParseError) {
    KY_LOG(logging::kLevelError, L"Invalid json file format : %S",
           read == BootInfoStatus::kTooLarge ? "file too large" : error.c_str());
  } else if (read != BootInfoStatus::kOk || !record.hasBootTime) {
    KY_LOG(logging::kLevelError, L"Invalid last boot json file");
  } else {
    KY_LOG(logging::kLevelInfo, L"Loading boot time from json");
    if (!record.bootTime) {
      KY_LOG(logging::kLevelError, L"Invalid last boot json file");
      return;
    }
    bootTime_ = static_cast<std::uint32_t>(*record.bootTime);
    KY_LOG(logging::kLevelInfo, L"Loaded boot time %d", *record.bootTime);
    status_ = kStatusFound;
  }
}

}  // namespace boottime
