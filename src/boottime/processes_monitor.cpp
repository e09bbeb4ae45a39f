#include "boottime/processes_monitor.h"

#include <mutex>

#include "boottime/wmi_process_dp.h"
#include "common/guard.h"
#include "common/log.h"

namespace boottime {

BootTimeMonitor::ProcessesMonitor::ProcessesMonitor(IServMain* host) : host_(host) {}

BootTimeMonitor::ProcessesMonitor::~ProcessesMonitor() { Stop(); }

bool BootTimeMonitor::ProcessesMonitor::Start() {
  KY_TRACE(L"boottime::BootTimeMonitor::ProcessesMonitor::Start");
  if (host_ == nullptr) return false;
  return ky::Guarded(L"boottime::BootTimeMonitor::ProcessesMonitor::Start", false, [&]() -> bool {
    auto source = std::make_unique<WmiProcessDP>();
    if (!source->Init(host_)) {
      KY_LOG(logging::kLevelError, L"IProcessDp Init failed");
      return false;
    }
    source_ = std::move(source);
    return source_->Start(this);
  });
}

void BootTimeMonitor::ProcessesMonitor::Stop() {
  KY_TRACE(L"boottime::BootTimeMonitor::ProcessesMonitor::Stop");
  if (!source_) return;
  source_->Stop();
  source_->UnInit();
  source_.reset();
}

void BootTimeMonitor::ProcessesMonitor::OnProcessStarted(const ProcessEvent& event) {
  ky::GuardedVoid(L"boottime::BootTimeMonitor::ProcessesMonitor::OnProcessStarted", [&] {
    std::lock_guard hold(lock_);
    started_.push_back(event);
  });
}

void BootTimeMonitor::ProcessesMonitor::OnProcessStopped(const ProcessEvent& event) {
  ky::GuardedVoid(L"boottime::BootTimeMonitor::ProcessesMonitor::OnProcessStopped", [&] {
    std::lock_guard hold(lock_);
    stopped_.push_back(event);
  });
}

void BootTimeMonitor::ProcessesMonitor::TakeEvents(std::vector<ProcessEvent>& started,
                                                   std::vector<ProcessEvent>& stopped) {
  std::vector<ProcessEvent> emptyStarted;
  std::vector<ProcessEvent> emptyStopped;
  {
    std::lock_guard hold(lock_);
    started_.swap(emptyStarted);
    stopped_.swap(emptyStopped);
  }
  started = std::move(emptyStarted);
  stopped = std::move(emptyStopped);
}

void BootTimeMonitor::ProcessesMonitor::ApplyEvents(Processes& processes, bool followStarts, const wchar_t* function) {
  std::vector<ProcessEvent> started;
  std::vector<ProcessEvent> stopped;
  TakeEvents(started, stopped);
  if (followStarts) {
    logging::Write(logging::kLevelDebug, function, L"LOAD STEP DATA");
    for (const ProcessEvent& event : started) (void)processes.Add(event);
  }
  logging::Write(logging::kLevelDebug, function, L"REM STEP DATA");
  for (const ProcessEvent& event : stopped) (void)processes.Rem(event);
}

}  // namespace boottime
