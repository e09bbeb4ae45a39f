#include "boottime/wmi_process_dp.h"

#include "common/guard.h"
#include "common/log.h"

namespace boottime {

bool WmiProcessDP::Init(IServMain* host) {
  KY_TRACE(L"boottime::WmiProcessDP::Init");
  return ky::Guarded(L"boottime::WmiProcessDP::Init", false, [&]() -> bool {
    IPlgComponentManager* manager = host != nullptr ? host->GetComponentManager() : nullptr;
    if (plugin_.Acquire(manager, kPluginName, lumera::ids::WmiProcessDPPlugin) != 0 || !plugin_) {
      KY_LOG_STREAM(logging::kLevelWarning) << L"GetPlugin " << kPluginName << L" failed";
      return false;
    }
    return true;
  });
}

void WmiProcessDP::UnInit() {
  KY_TRACE(L"boottime::WmiProcessDP::UnInit");
  plugin_.Reset();
}

bool WmiProcessDP::Start(IProcessDPObserver* observer) {
  KY_TRACE(L"boottime::WmiProcessDP::Start");
  if (!plugin_) return false;
  observer_ = observer;
  const std::uint32_t result = plugin_->RegisterEventsHandler(this);
  if (result != 0) {
    KY_LOG_STREAM(logging::kLevelWarning) << L"RegisterEventsHandler failed " << result;
    return false;
  }
  return true;
}

void WmiProcessDP::Stop() {
  KY_TRACE(L"boottime::WmiProcessDP::Stop");
  if (plugin_) (void)plugin_->UnregisterEventsHandler(this);
}

ProcessEvent WmiProcessDP::ToEvent(const WMIProcessInfo* info) const {
  ProcessEvent event;
  event.ppid = info->ppid;
  event.pid = info->pid;
  if (info->imagePath != nullptr) {
    event.name = info->imagePath;
  } else if (info->commandLine != nullptr) {
    event.name = info->commandLine;
  }
  return event;
}

void WmiProcessDP::Forward(const wchar_t* function, const WMIProcessInfo* info, bool started) {
  ky::GuardedVoid(function, [&] {
    if (info == nullptr) return;
    logging::CLogStream(logging::kLevelDebug, function) << L"pid=" << info->pid << L" name=" << info->name
                                                        << L" path=" << info->imagePath << L" cmdline="
                                                        << info->commandLine;
    const ProcessEvent event = ToEvent(info);
    logging::Write(logging::kLevelDebug, function, started ? L"New process started [%s] [%d]" : L"New process stopped [%s] [%d]",
                   event.name.c_str(), static_cast<int>(info->pid));
    if (observer_ == nullptr) return;
    if (started) {
      observer_->OnProcessStarted(event);
    } else {
      observer_->OnProcessStopped(event);
    }
  });
}

void WmiProcessDP::OnProcessStarted(const WMIProcessInfo* info) {
  KY_TRACE(L"boottime::WmiProcessDP::OnProcessStarted");
  Forward(kyTrace_.Name(), info, true);
}

void WmiProcessDP::OnProcessEnded(const WMIProcessInfo* info) {
  KY_TRACE(L"boottime::WmiProcessDP::OnProcessEnded");
  Forward(kyTrace_.Name(), info, false);
}

}  // namespace boottime
