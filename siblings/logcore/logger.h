// The one logger of logcore.dll: settings, the file, console output and each thread's
// trace depth. Every member function may be called from any thread at any time.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <string>

#include "common/critical_section.h"
#include "log_file.h"
#include "log_settings.h"

namespace logcore {

class Logger {
 public:
  // The one logger of the library, made by Create when the library is loaded and destroyed by
  // Destroy when it is freed.
  static Logger& Instance();
  static bool Create();
  static void Destroy();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Reference counted and cheap: only the first call of the library's life reads the
  // environment; the file stays open until the library is unloaded.
  void Init();
  void Deinit();

  // Applies the depth change to the calling thread (1: write, then one deeper; 0xFFFF: one
  // shallower, then write) and writes the formatted line unless logging is off or the level
  // is above the maximum. False when a line was due but could not be written to the file.
  bool Write(std::uint16_t depthChange, std::uint32_t level, const wchar_t* function, const wchar_t* format,
             va_list args);
  bool WriteFormatted(std::uint32_t level, const wchar_t* function, const wchar_t* format, ...);

  void SetEnabled(bool enabled);
  bool Enabled();
  void SetMaxLevel(std::uint32_t level);
  std::uint32_t MaxLevel();
  // Null or empty returns to the default folder.
  void SetFolder(const wchar_t* folder);
  void SetType(std::uint32_t type);
  void SetMode(std::uint32_t mode);
  void SetMaxSize(std::uint32_t bytes);
  void SetMaxIndent(std::uint32_t levels);

  void SetSettingsFile(const wchar_t* path);
  // False when no settings file is set or it does not exist.
  bool ApplySettingsFile();
  // While on, a write notices a changed settings file within a second and applies it.
  void MonitorSettings(bool monitor);

 private:
  Logger();
  ~Logger();

  // Returns the indentation for the line being written.
  std::uint32_t AdvanceDepth(std::uint16_t depthChange);
  // The caller holds lock_ in each of these.
  void ConfigureOnce();
  void Adopt(const Settings& settings);
  bool ApplySettingsFileLocked();
  void PollSettingsFile();
  bool Emit(const std::wstring& line);

  ky::CriticalSection lock_;
  DWORD depthSlot_;
  bool configured_ = false;
  long initCount_ = 0;
  Settings settings_;
  LogFile file_;
  std::wstring settingsFile_;
  bool monitor_ = false;
  DWORD lastPoll_ = 0;
  FILETIME settingsStamp_{};
};

}  // namespace logcore
