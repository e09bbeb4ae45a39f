#include "plugin/boottime_plugin.h"

#include <shlwapi.h>

#include <mutex>
#include <vector>

#include "common/guard.h"
#include "common/log.h"
#include "common/module_library.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"

namespace boottime {
namespace {

constexpr std::uint32_t kHostMissing = 0xFFFFFFFF;
constexpr wchar_t kLoadUsage[] = L"LoadUsage";
constexpr wchar_t kProductInfo[] = L"productinfo";

}  // namespace

CBootTimePlugin::CBootTimePlugin() = default;
CBootTimePlugin::~CBootTimePlugin() = default;

void* CBootTimePlugin::GetInterface(const GUID& iid) {
  if (KyIsEqualId(iid, lumera::ids::IKyBaseInterface) || KyIsEqualId(iid, lumera::ids::IServPlugin) ||
      KyIsEqualId(iid, lumera::ids::IBootTime)) {
    return static_cast<IBootTime*>(this);
  }
  return nullptr;
}

std::uint32_t CBootTimePlugin::Init(IServMain* host) {
  KY_TRACE(L"boottime::CBootTimePlugin::Init");
  return ky::Guarded(L"boottime::CBootTimePlugin::Init", ky::kGeneralFailure, [&]() -> std::uint32_t {
    if (host == nullptr) {
      KY_LOG(logging::kLevelError, L"IServMain is null!");
      UnInit();
      return kHostMissing;
    }
    componentManager_ = host->GetComponentManager();
    if (componentManager_ == nullptr) {
      KY_LOG(logging::kLevelError, L"IPlgComponentManager is null");
      UnInit();
      return kHostMissing;
    }
    const std::uint32_t result = componentManager_->GetPlugin(kLoadUsage, lumera::ids::LoadUsagePlugin, &loadUsage_);
    if (result != 0) {
      KY_LOG(logging::kLevelWarning, L"GetPlugin %s failed 0x%x", kLoadUsage, result);
      loadUsage_ = nullptr;
      UnInit();
      return result;
    }
    monitorEvent_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!monitorEvent_) KY_LOG(logging::kLevelError, L"CreateEvent failed");
    GetSettingsFolderPath();
    return 0;
  });
}

std::uint32_t CBootTimePlugin::UnInit() {
  KY_TRACE(L"boottime::CBootTimePlugin::UnInit");
  if (loadUsage_ != nullptr && componentManager_ != nullptr) componentManager_->ReleasePlugin(kLoadUsage);
  loadUsage_ = nullptr;
  monitorEvent_.reset();
  return 0;
}

std::uint32_t CBootTimePlugin::Start() {
  KY_TRACE(L"boottime::CBootTimePlugin::Start");
  // The processing run (monitor, analyser, result files, report) is not part of this build yet.
  KY_LOG(logging::kLevelError, L"boot-time processing is not available in this build 0x%x", ERROR_NOT_SUPPORTED);
  return ERROR_NOT_SUPPORTED;
}

std::uint32_t CBootTimePlugin::Stop() {
  KY_TRACE(L"boottime::CBootTimePlugin::Stop");
  if (monitorEvent_ && !::SetEvent(monitorEvent_.get())) {
    KY_LOG(logging::kLevelError, L"SetEvent MonitorEvent failed error code %lu", ::GetLastError());
  }
  return 0;
}

std::uint32_t CBootTimePlugin::OverallStatus() {
  std::lock_guard hold(statusLock_);
  return overallStatus_;
}

std::uint32_t CBootTimePlugin::GetBootTime(std::uint32_t* milliseconds) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootTime");
  if (milliseconds == nullptr) return ERROR_INVALID_DATA;
  return OverallStatus();
}

std::uint32_t CBootTimePlugin::GetTotalBootImpact(BootCounters* total) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetTotalBootImpact");
  if (total == nullptr) return ERROR_INVALID_DATA;
  return OverallStatus();
}

std::uint32_t CBootTimePlugin::GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey*) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetBootImpact");
  if (impacts == nullptr) return ERROR_INVALID_DATA;
  return OverallStatus();
}

std::uint32_t CBootTimePlugin::GetDiskSpeed(DiskSpeed* speed) {
  KY_TRACE(L"boottime::CBootTimePlugin::GetDiskSpeed");
  if (speed == nullptr) return ERROR_INVALID_DATA;
  return kStatusNotYetKnown;
}

std::uint32_t CBootTimePlugin::AddListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimePlugin::AddListener");
  if (listener == nullptr) return ERROR_INVALID_DATA;
  return ky::Guarded(L"boottime::CBootTimePlugin::AddListener", ky::kGeneralFailure,
                     [&] { return listeners_.Register(listener); });
}

std::uint32_t CBootTimePlugin::RemoveListener(IBootTimeEvents* listener) {
  KY_TRACE(L"boottime::CBootTimePlugin::RemoveListener");
  return listeners_.Unregister(listener);
}

void CBootTimePlugin::OnDataAnalysed(std::uint32_t status) {
  KY_TRACE(L"boottime::CBootTimePlugin::OnDataAnalysed");
  KY_LOG(logging::kLevelInfo, L"OnDataAnalysed error code %d", status);
  listeners_.ForEach([status](IBootTimeEvents* listener) { listener->OnDataAnalysed(status); });
}

void CBootTimePlugin::GetSettingsFolderPath() {
  KY_TRACE(L"boottime::CBootTimePlugin::GetSettingsFolderPath");
  std::wstring folder;
  if (componentManager_ == nullptr) {
    KY_LOG(logging::kLevelError, L"Component Manager is null!");
  } else {
    void* object = nullptr;
    if (componentManager_->GetPlugin(kProductInfo, lumera::ids::ProductInfoPlugin, &object) != 0 || object == nullptr) {
      KY_LOG(logging::kLevelWarning, L"Error getting plugin: %s", kProductInfo);
    } else {
      const wchar_t* common = static_cast<IProductInfo*>(object)->GetFolder(lumera::kFolderKindCommon, L"common");
      if (common != nullptr) folder = common;
      componentManager_->ReleasePlugin(kProductInfo);
    }
  }
  if (!folder.empty()) {
    if (folder.back() != L'\\') folder += L'\\';
    folder += L"velora\\";
    if (::PathIsRelativeW(folder.c_str())) folder = ky::ThisModuleFolder() + folder;
  } else {
    folder = ky::ModuleFolder(nullptr) + L"settings\\velora\\";
  }
  ::CreateDirectoryW(folder.c_str(), nullptr);
  settingsFolder_ = folder;
  KY_LOG(logging::kLevelInfo, L"settingsFolderPath=%s", settingsFolder_.c_str());
}

}  // namespace boottime
