#include "logger.h"

#include <new>

#include <algorithm>
#include <mutex>

#include "common/text_convert.h"
#include "message_format.h"

namespace logcore {
namespace {

constexpr DWORD kSettingsPollMs = 1000;

FILETIME LastWriteTime(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (path.empty() || !::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return FILETIME{};
  return data.ftLastWriteTime;
}

bool SameTime(const FILETIME& a, const FILETIME& b) {
  return a.dwLowDateTime == b.dwLowDateTime && a.dwHighDateTime == b.dwHighDateTime;
}

void WriteToConsole(const std::wstring& line, const std::string& utf8) {
  // The process's standard handle is borrowed, never closed here.
  const HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  if (out == nullptr || out == INVALID_HANDLE_VALUE) return;
  DWORD mode = 0;
  DWORD written = 0;
  if (::GetConsoleMode(out, &mode)) {
    ::WriteConsoleW(out, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  } else {
    ::WriteFile(out, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
  }
}

}  // namespace

namespace {
Logger* g_instance = nullptr;
}  // namespace

bool Logger::Create() {
  g_instance = new (std::nothrow) Logger();
  return g_instance != nullptr;
}

void Logger::Destroy() {
  delete g_instance;
  g_instance = nullptr;
}

Logger& Logger::Instance() { return *g_instance; }

Logger::Logger() : depthSlot_(::TlsAlloc()) {}

Logger::~Logger() {
  if (depthSlot_ != TLS_OUT_OF_INDEXES) ::TlsFree(depthSlot_);
}

void Logger::Init() {
  std::lock_guard hold(lock_);
  ++initCount_;
  ConfigureOnce();
}

void Logger::Deinit() {
  std::lock_guard hold(lock_);
  if (initCount_ > 0) --initCount_;
}

void Logger::ConfigureOnce() {
  if (configured_) return;
  configured_ = true;
  Adopt(InitialSettings());
}

void Logger::Adopt(const Settings& settings) {
  settings_ = settings;
  settings_.maxIndent = std::min(settings_.maxIndent, kMaxIndentLimit);
  file_.SetFolder(settings_.folder);
  file_.SetMaxSize(settings_.maxSize);
  file_.SetTruncateOnOpen(settings_.mode == kModeTruncate);
}

std::uint32_t Logger::AdvanceDepth(std::uint16_t depthChange) {
  if (depthSlot_ == TLS_OUT_OF_INDEXES) return 0;
  auto depth = reinterpret_cast<std::uintptr_t>(::TlsGetValue(depthSlot_));
  const std::uintptr_t lineDepth = depthChange == kDepthLeave && depth > 0 ? depth - 1 : depth;
  std::uintptr_t next = lineDepth;
  if (depthChange == kDepthEnter) next = depth + 1;
  ::TlsSetValue(depthSlot_, reinterpret_cast<void*>(next));
  return static_cast<std::uint32_t>(std::min<std::uintptr_t>(lineDepth, kMaxIndentLimit));
}

bool Logger::Write(std::uint16_t depthChange, std::uint32_t level, const wchar_t* function, const wchar_t* format,
                   va_list args) {
  std::uint32_t indent = AdvanceDepth(depthChange);
  {
    std::lock_guard hold(lock_);
    ConfigureOnce();
    PollSettingsFile();
    if (!settings_.enabled || level > settings_.maxLevel || settings_.type == 0) return true;
    indent = std::min(indent, settings_.maxIndent);
  }
  // Formatting happens outside the lock so that threads only queue for the write itself.
  wchar_t text[kMaxTextChars + 1];
  FormatText(text, kMaxTextChars + 1, format, args);
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  const std::wstring line = ComposeLine(now, ::GetCurrentThreadId(), level, indent, function, text) + L"\r\n";
  std::lock_guard hold(lock_);
  return Emit(line);
}

bool Logger::WriteFormatted(std::uint32_t level, const wchar_t* function, const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  const bool written = Write(0, level, function, format, args);
  va_end(args);
  return written;
}

bool Logger::Emit(const std::wstring& line) {
  const std::string utf8 = ky::WideToUtf8(line);
  bool written = true;
  if (settings_.type & kTypeFile) written = file_.Append(utf8.data(), utf8.size());
  if (settings_.type & kTypeConsole) WriteToConsole(line, utf8);
  return written;
}

void Logger::SetEnabled(bool enabled) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.enabled = enabled;
}

bool Logger::Enabled() {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  return settings_.enabled;
}

void Logger::SetMaxLevel(std::uint32_t level) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.maxLevel = level;
}

std::uint32_t Logger::MaxLevel() {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  return settings_.maxLevel;
}

void Logger::SetFolder(const wchar_t* folder) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.folder = folder == nullptr || *folder == L'\0' ? DefaultFolder() : WithTrailingBackslash(folder);
  file_.SetFolder(settings_.folder);
}

void Logger::SetType(std::uint32_t type) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.type = type & kTypeFileAndConsole;
}

void Logger::SetMode(std::uint32_t mode) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.mode = mode;
  file_.SetTruncateOnOpen(mode == kModeTruncate);
}

void Logger::SetMaxSize(std::uint32_t bytes) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.maxSize = bytes;
  file_.SetMaxSize(bytes);
}

void Logger::SetMaxIndent(std::uint32_t levels) {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  settings_.maxIndent = std::min(levels, kMaxIndentLimit);
}

void Logger::SetSettingsFile(const wchar_t* path) {
  std::lock_guard hold(lock_);
  settingsFile_ = path == nullptr ? std::wstring() : std::wstring(path);
  settingsStamp_ = FILETIME{};
}

bool Logger::ApplySettingsFile() {
  std::lock_guard hold(lock_);
  ConfigureOnce();
  return ApplySettingsFileLocked();
}

bool Logger::ApplySettingsFileLocked() {
  Settings next = settings_;
  if (!logcore::ApplySettingsFile(settingsFile_, next)) return false;
  settingsStamp_ = LastWriteTime(settingsFile_);
  Adopt(next);
  return true;
}

void Logger::MonitorSettings(bool monitor) {
  std::lock_guard hold(lock_);
  monitor_ = monitor;
  lastPoll_ = ::GetTickCount();
}

void Logger::PollSettingsFile() {
  if (!monitor_ || settingsFile_.empty()) return;
  const DWORD now = ::GetTickCount();
  if (now - lastPoll_ < kSettingsPollMs) return;
  lastPoll_ = now;
  const FILETIME stamp = LastWriteTime(settingsFile_);
  if (stamp.dwLowDateTime == 0 && stamp.dwHighDateTime == 0) return;
  if (!SameTime(stamp, settingsStamp_)) ApplySettingsFileLocked();
}

}  // namespace logcore
