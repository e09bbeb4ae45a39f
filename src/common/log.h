// Logging adapter over logcore.dll, bound at run time from the module's own folder.
//
// Every operation starts with KY_TRACE(L"qualified::Name"), which writes "-> name" on entry
// and "<- name [ms]" on exit; KY_LOG then logs under that same name. Formats use Microsoft
// printf semantics (%s wide, %S narrow). Without logcore.dll nothing is written and nothing
// fails.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>

#include "common/module_library.h"
#include "lumera/logcore.h"

namespace logging {

inline constexpr std::uint32_t kLevelError = 4;     // an operation failed
inline constexpr std::uint32_t kLevelWarning = 8;   // a call to another plug-in failed
inline constexpr std::uint32_t kLevelInfo = 16;     // decisions and results
inline constexpr std::uint32_t kLevelDebug = 32;    // traces and per-step detail

// Answered by the stand-in for a missing library or LogWrite export.
inline constexpr std::int32_t kNoInterface = static_cast<std::int32_t>(0x80004002);

class CLogDLL {
 public:
  CLogDLL();
  // Writes nothing and binds nothing: what every holder gets when the shared instance cannot be made.
  explicit CLogDLL(std::nullptr_t) noexcept;
  ~CLogDLL();
  CLogDLL(const CLogDLL&) = delete;
  CLogDLL& operator=(const CLogDLL&) = delete;

  bool Loaded() const { return module_.Loaded(); }

  template <class... Args>
  std::int32_t Write(std::uint16_t depthChange, std::uint32_t level, const wchar_t* function, const wchar_t* format,
                     Args... args) const {
    static_assert((std::is_trivially_copyable_v<Args> && ...), "pass c_str(), not string objects");
    return pfnLogWrite(depthChange, &level, ModuleBase(), function, format, args...);
  }

  static const void* ModuleBase();

 private:
  ky::ModuleLibrary module_;
  LogApplySettingsFn pfnLogApplySettings = nullptr;
  LogSetSettingsFileFn pfnLogSetSettingsFile = nullptr;
  LogEnableFn pfnLogEnable = nullptr;
  LogSetLevelFn pfnLogSetLevel = nullptr;
  LogSetPathFn pfnLogSetPath = nullptr;
  LogSetTypeFn pfnLogSetType = nullptr;
  LogSetModeFn pfnLogSetMode = nullptr;
  LogSetMaxSizeFn pfnLogSetMaxSize = nullptr;
  LogSetDepthFn pfnLogSetDepth = nullptr;
  LogWriteFn pfnLogWrite = nullptr;
  LogIsEnabledFn pfnLogIsEnabled = nullptr;
  LogMonitorSettingsFn pfnLogMonitorSettings = nullptr;
  LogUninitDeskMetricsFn pfnLogUninitDeskMetrics = nullptr;
  LogTrackEventFn pfnLogTrackEvent = nullptr;
  LogTrackEventDataFn pfnLogTrackEventData = nullptr;
  LogRemoveModuleFn pfnLogRemoveModule = nullptr;
  LogGetLevelFn pfnLogGetLevel = nullptr;
};

// Which of the shared instance's two user counts a holder raises.
enum class LogUser { kSite, kTracer };

// Holds the shared CLogDLL for its own life; the instance is created by the first holder
// and destroyed when the last one lets go.
class LogRef {
 public:
  explicit LogRef(LogUser user = LogUser::kSite);
  ~LogRef();
  LogRef(const LogRef&) = delete;
  LogRef& operator=(const LogRef&) = delete;
  const CLogDLL* operator->() const { return dll_; }

 private:
  LogUser user_;
  const CLogDLL* dll_;
};

template <class... Args>
void Write(std::uint32_t level, const wchar_t* function, const wchar_t* format, Args... args) {
  LogRef log;
  log->Write(0, level, function, format, args...);
}

// Entry/exit tracer placed at the start of an operation.
class CTracer {
 public:
  explicit CTracer(const wchar_t* name);
  ~CTracer();
  CTracer(const CTracer&) = delete;
  CTracer& operator=(const CTracer&) = delete;
  const wchar_t* Name() const { return name_; }

 private:
  LogRef log_{LogUser::kTracer};
  DWORD start_;
  wchar_t name_[261];
};

// A wide text stream written as one message on Flush (or destruction if not yet flushed).
class CLogStream {
 public:
  CLogStream(std::uint32_t level, const wchar_t* function) : level_(level), function_(function) {}
  ~CLogStream() {
    if (!flushed_) Flush();
  }
  CLogStream(const CLogStream&) = delete;
  CLogStream& operator=(const CLogStream&) = delete;

  // A null string of either width appends "null": a log line must never throw or cut the
  // rest of the message.
  template <class T>
  CLogStream& operator<<(const T& value) {
    if constexpr (std::is_convertible_v<const T&, const wchar_t*>) {
      const wchar_t* text = value;
      text_ << (text ? text : L"null");
    } else if constexpr (std::is_convertible_v<const T&, const char*>) {
      const char* text = value;
      AppendNarrow(text ? text : "null");
    } else if constexpr (std::is_same_v<T, std::string>) {
      AppendNarrow(value);
    } else {
      text_ << value;
    }
    return *this;
  }
  void Flush();

 private:
  void AppendNarrow(const std::string& value);
  std::uint32_t level_;
  const wchar_t* function_;
  std::wostringstream text_;
  bool flushed_ = false;
};

}  // namespace logging

#define KY_TRACE(name) ::logging::CTracer kyTrace_(name)
#define KY_LOG(level, ...) ::logging::Write((level), kyTrace_.Name(), __VA_ARGS__)
#define KY_LOG_STREAM(level) ::logging::CLogStream((level), kyTrace_.Name())
