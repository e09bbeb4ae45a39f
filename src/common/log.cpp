#include "common/log.h"

#include <cwchar>
#include <new>
#include <string>

namespace logging {
namespace {

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

}  // namespace

const void* CLogDLL::ModuleBase() { return ky::ThisModule(); }

CLogDLL::CLogDLL() {
  // The first message may be the one reporting a failed call's last error.
  const DWORD error = ::GetLastError();
  if (module_.Load(ky::ThisModuleFolder() + L"logcore.dll") == 0) {
    if (auto init = module_.Resolve<LogInitFn>("LogInit")) init();
    using ky::BindAs;
    const std::uint32_t all = module_.Bind({
        BindAs("LogApplySettings", pfnLogApplySettings), BindAs("LogSetSettingsFile", pfnLogSetSettingsFile),
        BindAs("LogEnable", pfnLogEnable), BindAs("LogSetLevel", pfnLogSetLevel), BindAs("LogSetPath", pfnLogSetPath),
        BindAs("LogSetType", pfnLogSetType), BindAs("LogSetMode", pfnLogSetMode),
        BindAs("LogSetMaxSize", pfnLogSetMaxSize), BindAs("LogSetDepth", pfnLogSetDepth),
        BindAs("LogWrite", pfnLogWrite), BindAs("LogIsEnabled", pfnLogIsEnabled),
        BindAs("LogMonitorSettings", pfnLogMonitorSettings), BindAs("LogUninitDeskMetrics", pfnLogUninitDeskMetrics),
        BindAs("LogTrackEvent", pfnLogTrackEvent), BindAs("LogTrackEventData", pfnLogTrackEventData),
        BindAs("LogRemoveModule", pfnLogRemoveModule), BindAs("LogGetLevel", pfnLogGetLevel)});
    // A logging library that lacks any of the other exports still writes: LogWrite is the
    // only one the module calls.
    if (all != 0) (void)module_.Bind({BindAs("LogWrite", pfnLogWrite)});
  }
  if (pfnLogWrite == nullptr) pfnLogWrite = &NoLogWrite;
  ::SetLastError(error);
}

CLogDLL::CLogDLL(std::nullptr_t) noexcept : pfnLogWrite(&NoLogWrite) {}

CLogDLL::~CLogDLL() {
  if (module_.Loaded()) {
    if (auto deinit = module_.Resolve<LogDeinitFn>("LogDeinit")) deinit();
  }
}

LogRef::LogRef(LogUser user) : user_(user) {
  SpinGuard guard;
  if (g_instance == nullptr) {
    // Not the exception guard: it logs, and every guarded method traces before its guard.
    try {
      g_instance = new CLogDLL();
    } catch (const std::bad_alloc&) {
    }
  }
  static const CLogDLL silent(nullptr);
  CountOf(user_).fetch_add(1);
  dll_ = g_instance != nullptr ? g_instance : &silent;
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
