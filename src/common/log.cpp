#include "common/log.h"

#include <cwchar>
#include <string>
#include <vector>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace logging {
namespace {

constexpr DWORD kMaxModulePath = 32767;

std::int32_t __cdecl NoLogWrite(std::uint16_t, const std::uint32_t*, const void*, const wchar_t*, const wchar_t*, ...) {
  return kNoInterface;
}

// The shared instance: created by the first user, destroyed when both counts are back at 0.
CLogDLL* g_instance = nullptr;
std::atomic<long> g_siteUsers{0};
std::atomic<long> g_tracerUsers{0};
std::atomic<long> g_spin{0};

class SpinGuard {
 public:
  SpinGuard() {
    while (g_spin.exchange(1, std::memory_order_acquire) != 0) ::Sleep(1);
  }
  ~SpinGuard() { g_spin.store(0, std::memory_order_release); }
};

std::atomic<long>& CountOf(LogUser user) { return user == LogUser::kTracer ? g_tracerUsers : g_siteUsers; }

template <class Fn>
Fn Resolve(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

}  // namespace

const void* CLogDLL::ModuleBase() { return &__ImageBase; }

CLogDLL::CLogDLL() {
  std::vector<wchar_t> path(kMaxModulePath + 1, L'\0');
  DWORD n = ::GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path.data(), kMaxModulePath);
  std::wstring file(path.data(), n);
  const size_t slash = file.find_last_of(L'\\');
  file.resize(slash == std::wstring::npos ? 0 : slash);
  file += L"\\logcore.dll";

  module_.reset(::LoadLibraryW(file.c_str()));
  if (module_) {
    if (auto init = Resolve<LogInitFn>(module_.get(), "LogInit")) init();
    pfnLogApplySettings = Resolve<LogApplySettingsFn>(module_.get(), "LogApplySettings");
    pfnLogSetSettingsFile = Resolve<LogSetSettingsFileFn>(module_.get(), "LogSetSettingsFile");
    pfnLogEnable = Resolve<LogEnableFn>(module_.get(), "LogEnable");
    pfnLogSetLevel = Resolve<LogSetLevelFn>(module_.get(), "LogSetLevel");
    pfnLogSetPath = Resolve<LogSetPathFn>(module_.get(), "LogSetPath");
    pfnLogSetType = Resolve<LogSetTypeFn>(module_.get(), "LogSetType");
    pfnLogSetMode = Resolve<LogSetModeFn>(module_.get(), "LogSetMode");
    pfnLogSetMaxSize = Resolve<LogSetMaxSizeFn>(module_.get(), "LogSetMaxSize");
    pfnLogSetDepth = Resolve<LogSetDepthFn>(module_.get(), "LogSetDepth");
    pfnLogWrite = Resolve<LogWriteFn>(module_.get(), "LogWrite");
    pfnLogIsEnabled = Resolve<LogIsEnabledFn>(module_.get(), "LogIsEnabled");
    pfnLogMonitorSettings = Resolve<LogMonitorSettingsFn>(module_.get(), "LogMonitorSettings");
    pfnLogUninitDeskMetrics = Resolve<LogUninitDeskMetricsFn>(module_.get(), "LogUninitDeskMetrics");
    pfnLogTrackEvent = Resolve<LogTrackEventFn>(module_.get(), "LogTrackEvent");
    pfnLogTrackEventData = Resolve<LogTrackEventDataFn>(module_.get(), "LogTrackEventData");
    pfnLogRemoveModule = Resolve<LogRemoveModuleFn>(module_.get(), "LogRemoveModule");
    pfnLogGetLevel = Resolve<LogGetLevelFn>(module_.get(), "LogGetLevel");
  }
  if (pfnLogWrite == nullptr) pfnLogWrite = &NoLogWrite;
}

CLogDLL::~CLogDLL() {
  if (module_) {
    if (auto deinit = Resolve<LogDeinitFn>(module_.get(), "LogDeinit")) deinit();
  }
}

LogRef::LogRef(LogUser user) : user_(user) {
  SpinGuard guard;
  if (g_instance == nullptr) g_instance = new CLogDLL();
  CountOf(user_).fetch_add(1);
  dll_ = g_instance;
}

LogRef::~LogRef() {
  SpinGuard guard;
  CountOf(user_).fetch_sub(1);
  if (g_siteUsers.load() == 0 && g_tracerUsers.load() == 0) {
    delete g_instance;
    g_instance = nullptr;
  }
}

CTracer::CTracer(const wchar_t* name) : start_(::GetTickCount()) {
  ::wcsncpy(name_, name ? name : L"", 260);
  name_[260] = L'\0';
  log_->Write(logcore::kDepthEnter, kLevelDebug, name_, L"-> %s", name_);
}

CTracer::~CTracer() {
  const int elapsed = static_cast<int>(::GetTickCount() - start_);
  log_->Write(logcore::kDepthLeave, kLevelDebug, name_, L"<- %s [%d]", name_, elapsed);
}

void CLogStream::AppendNarrow(const std::string& value) {
  for (unsigned char c : value) text_ << static_cast<wchar_t>(c);
}

void CLogStream::Flush() {
  flushed_ = true;
  const std::wstring text = text_.str();
  Write(level_, function_, L"%s", text.c_str());
}

}  // namespace logging
