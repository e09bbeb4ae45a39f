// logcore.dll: the product's logging library. Every export is safe to call from any thread
// and returns a code instead of letting an exception out.
#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <type_traits>

#include "logger.h"
#include "lumera/logcore.h"

namespace {

constexpr std::int32_t kOk = 0;
constexpr std::int32_t kNotFound = ERROR_FILE_NOT_FOUND;
constexpr std::int32_t kInvalidData = ERROR_INVALID_DATA;
constexpr std::int32_t kWriteFault = ERROR_WRITE_FAULT;
constexpr std::int32_t kFailure = ERROR_GEN_FAILURE;
constexpr std::uint32_t kEventLevel = 16;

template <class Fn>
std::int32_t Guarded(Fn&& fn) noexcept {
  try {
    return fn();
  } catch (...) {
    return kFailure;
  }
}

logcore::Logger& Log() { return logcore::Logger::Instance(); }

// `change` applied to the logger, answering kOk when it returns.
template <class Change>
std::int32_t Applied(Change&& change) noexcept {
  return Guarded([&] {
    change(Log());
    return kOk;
  });
}

}  // namespace

extern "C" {

std::int32_t __cdecl LogInit() { return Applied([](logcore::Logger& log) { log.Init(); }); }

std::int32_t __cdecl LogDeinit() { return Applied([](logcore::Logger& log) { log.Deinit(); }); }

std::int32_t __cdecl LogApplySettings() {
  return Guarded([] { return Log().ApplySettingsFile() ? kOk : kNotFound; });
}

std::int32_t __cdecl LogSetSettingsFile(const wchar_t* path) {
  return Applied([path](logcore::Logger& log) { log.SetSettingsFile(path); });
}

std::int32_t __cdecl LogEnable(std::int32_t enable) {
  return Applied([enable](logcore::Logger& log) { log.SetEnabled(enable != 0); });
}

std::int32_t __cdecl LogSetLevel(std::uint32_t maxLevel) {
  return Applied([maxLevel](logcore::Logger& log) { log.SetMaxLevel(maxLevel); });
}

std::int32_t __cdecl LogSetPath(const wchar_t* folder) {
  return Applied([folder](logcore::Logger& log) { log.SetFolder(folder); });
}

std::int32_t __cdecl LogSetType(std::uint32_t type) {
  return Applied([type](logcore::Logger& log) { log.SetType(type); });
}

std::int32_t __cdecl LogSetMode(std::uint32_t mode) {
  return Applied([mode](logcore::Logger& log) { log.SetMode(mode); });
}

std::int32_t __cdecl LogSetMaxSize(std::uint32_t bytes) {
  return Applied([bytes](logcore::Logger& log) { log.SetMaxSize(bytes); });
}

std::int32_t __cdecl LogSetDepth(std::uint32_t depth) {
  return Applied([depth](logcore::Logger& log) { log.SetMaxIndent(depth); });
}

std::int32_t __cdecl LogWrite(std::uint16_t depthChange, const std::uint32_t* level, const void* /*moduleBase*/,
                              const wchar_t* function, const wchar_t* format, ...) {
  if (level == nullptr || format == nullptr) return kInvalidData;
  va_list args;
  va_start(args, format);
  const std::int32_t result =
      Guarded([&] { return Log().Write(depthChange, *level, function, format, args) ? kOk : kWriteFault; });
  va_end(args);
  return result;
}

std::int32_t __cdecl LogIsEnabled() {
  return Guarded([] { return Log().Enabled() ? 1 : 0; });
}

std::int32_t __cdecl LogMonitorSettings(std::int32_t monitor) {
  return Applied([monitor](logcore::Logger& log) { log.MonitorSettings(monitor != 0); });
}

// There are no desktop metrics to release; callers still expect the entry.
std::int32_t __cdecl LogUninitDeskMetrics() { return kOk; }

std::int32_t __cdecl LogTrackEvent(const wchar_t* name) {
  if (name == nullptr) return kInvalidData;
  return Guarded([name] { return Log().WriteFormatted(kEventLevel, L"LogTrackEvent", L"%s", name) ? kOk : kWriteFault; });
}

std::int32_t __cdecl LogTrackEventData(const wchar_t* name, const wchar_t* data) {
  if (name == nullptr) return kInvalidData;
  return Guarded([name, data] {
    return Log().WriteFormatted(kEventLevel, L"LogTrackEventData", L"%s: %s", name, data ? data : L"") ? kOk
                                                                                                      : kWriteFault;
  });
}

// Nothing is kept per calling module, so there is nothing to forget.
std::int32_t __cdecl LogRemoveModule(const void* /*moduleBase*/) { return kOk; }

std::int32_t __cdecl LogGetLevel() {
  return Guarded([] { return static_cast<std::int32_t>(Log().MaxLevel()); });
}

}  // extern "C"

// The exports must keep exactly the signatures callers bind to by name.
static_assert(std::is_same_v<decltype(&LogInit), LogInitFn>);
static_assert(std::is_same_v<decltype(&LogDeinit), LogDeinitFn>);
static_assert(std::is_same_v<decltype(&LogApplySettings), LogApplySettingsFn>);
static_assert(std::is_same_v<decltype(&LogSetSettingsFile), LogSetSettingsFileFn>);
static_assert(std::is_same_v<decltype(&LogEnable), LogEnableFn>);
static_assert(std::is_same_v<decltype(&LogSetLevel), LogSetLevelFn>);
static_assert(std::is_same_v<decltype(&LogSetPath), LogSetPathFn>);
static_assert(std::is_same_v<decltype(&LogSetType), LogSetTypeFn>);
static_assert(std::is_same_v<decltype(&LogSetMode), LogSetModeFn>);
static_assert(std::is_same_v<decltype(&LogSetMaxSize), LogSetMaxSizeFn>);
static_assert(std::is_same_v<decltype(&LogSetDepth), LogSetDepthFn>);
static_assert(std::is_same_v<decltype(&LogWrite), LogWriteFn>);
static_assert(std::is_same_v<decltype(&LogIsEnabled), LogIsEnabledFn>);
static_assert(std::is_same_v<decltype(&LogMonitorSettings), LogMonitorSettingsFn>);
static_assert(std::is_same_v<decltype(&LogUninitDeskMetrics), LogUninitDeskMetricsFn>);
static_assert(std::is_same_v<decltype(&LogTrackEvent), LogTrackEventFn>);
static_assert(std::is_same_v<decltype(&LogTrackEventData), LogTrackEventDataFn>);
static_assert(std::is_same_v<decltype(&LogRemoveModule), LogRemoveModuleFn>);
static_assert(std::is_same_v<decltype(&LogGetLevel), LogGetLevelFn>);

// The logger is made and destroyed with the library itself: its users load and free the
// library once per message, and a function-local static would only be destroyed at process
// exit, leaking a thread-local slot per load until the process runs out.
BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) return logcore::Logger::Create() ? TRUE : FALSE;
  // At process exit (reserved non-null) other threads are gone mid-call: leave it to the system.
  if (reason == DLL_PROCESS_DETACH && reserved == nullptr) logcore::Logger::Destroy();
  return TRUE;
}
