#include "boottime/wmi_process_dp.h"

#include "common/guard.h"
#include "common/log.h"

namespace boottime {

bool WmiProcessDP::Init(IServMain* host) {
  KY_TRACE(L"boottime::WmiProcessDP::Init");
  return ky::Guarded(L"boottime::WmiProcessDP::Init", false, [&]() -> bool {
    componentManager_ = host != nullptr ? host->GetComponentManager() : nullptr;
    void* object = nullptr;
    const std::uint32_t result =
        componentManager_ != nullptr
            ? componentManager_->GetPlugin(kPluginName, lumera::ids::WmiProcessDPPlugin, &object)
            : ERROR_INVALID_DATA;
    if (result != 0 || object == nullptr) {
      KY_LOG_STREAM(logging::kLevelWarning) << L"GetPlugin " << kPluginName << L" failed";
      return false;
    }
    plugin_ = static_cast<IWMIProcessDP*>(object);
    return true;
  });
}

void WmiProcessDP::UnInit() {
  KY_TRACE(L"boottime::WmiProcessDP::UnInit");
  if (componentManager_ != nullptr && plugin_ != nullptr) {
    (void)componentManager_->ReleasePlugin(kPluginName);
    plugin_ = nullptr;
  }
}

bool WmiProcessDP::Start(IProcessDPObserver* observer) {
  KY_TRACE(L"boottime::WmiProcessDP::Start");
  if (plugin_ == nullptr) return false;
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
  if (plugin_ != nullptr) (void)plugin_->UnregisterEventsHandler(this);
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

void WmiProcessDP::OnProcessStarted(const WMIProcessInfo* info) {
  KY_TRACE(L"boottime::WmiProcessDP::OnProcessStarted");
  ky::GuardedVoid(L"boottime::WmiProcessDP::OnProcessStarted", [&] {
    if (info == nullptr) return;
    KY_LOG_STREAM(logging::kLevelDebug) << L"pid=" << info->pid << L" name=" << info->name << L" path="
                                        << info->imagePath << L" cmdline=" << info->commandLine;
    const ProcessEvent event = ToEvent(info);
    KY_LOG(logging::kLevelDebug, L"New process started [%s] [%d]", event.name.c_str(), static_cast<int>(info->pid));
    if (observer_ != nullptr) observer_->OnProcessStarted(event);
  });
}

void WmiProcessDP::OnProcessEnded(const WMIProcessInfo* info) {
  KY_TRACE(L"boottime::WmiProcessDP::OnProcessEnded");
  ky::GuardedVoid(L"boottime::WmiProcessDP::OnProcessEnded", [&] {
    if (info == nullptr) return;
    KY_LOG_STREAM(logging::kLevelDebug) << L"pid=" << info->pid << L" name=" << info->name << L" path="
                                        << info->imagePath << L" cmdline=" << info->commandLine;
    const ProcessEvent event = ToEvent(info);
    KY_LOG(logging::kLevelDebug, L"New process stopped [%s] [%d]", event.name.c_str(), static_cast<int>(info->pid));
    if (observer_ != nullptr) observer_->OnProcessStopped(event);
  });
}

}  // namespace boottime
