// What logcore.dll writes and where: built-in defaults, the environment overrides tests and
// demos use, and the optional settings file named by LogSetSettingsFile.
#pragma once

#include <cstdint>
#include <string>

#include "lumera/logcore.h"

namespace logcore {

inline constexpr std::uint32_t kDefaultMaxLevel = 32;
inline constexpr std::uint32_t kDefaultMaxSize = 10 * 1024 * 1024;
inline constexpr std::uint32_t kDefaultMaxIndent = 32;
inline constexpr std::uint32_t kMaxIndentLimit = 64;
// LogSetMode: keep what the file already holds, or empty it whenever this library opens it.
inline constexpr std::uint32_t kModeAppend = 0;
inline constexpr std::uint32_t kModeTruncate = 1;

inline constexpr wchar_t kFileName[] = L"lumera.log";
inline constexpr wchar_t kEnvFolder[] = L"LUMERA_LOG_DIR";
inline constexpr wchar_t kEnvLevel[] = L"LUMERA_LOG_LEVEL";
inline constexpr wchar_t kEnvConsole[] = L"LUMERA_LOG_CONSOLE";

struct Settings {
  bool enabled = true;
  std::uint32_t maxLevel = kDefaultMaxLevel;  // messages above it are dropped
  std::wstring folder;                        // always ends with a backslash
  std::uint32_t type = kTypeFile;
  std::uint32_t mode = kModeAppend;
  std::uint32_t maxSize = kDefaultMaxSize;  // bytes; 0 never rotates
  std::uint32_t maxIndent = kDefaultMaxIndent;
};

// This library's folder + "logs\".
std::wstring DefaultFolder();

// Appends a backslash unless there is one; an empty folder stays empty.
std::wstring WithTrailingBackslash(std::wstring folder);

// Built-in defaults, then LUMERA_LOG_DIR, LUMERA_LOG_LEVEL and LUMERA_LOG_CONSOLE=1
// (which adds console output) where set.
Settings InitialSettings();

// Reads the [Log] section of an ini file given by full path (keys Enabled, Level, Path, Type,
// Mode, MaxSize, Depth) over settings; keys that are absent keep their value. Returns false,
// changing nothing, when the file does not exist.
bool ApplySettingsFile(const std::wstring& path, Settings& settings);

}  // namespace logcore
