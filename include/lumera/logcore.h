// Exports of logcore.dll, the product's logging library, bound at run time by name.
//
// LogWrite formats with Microsoft printf semantics (in a wide format %s is a wide string,
// %S a narrow one). depthChange is 1 on an entry trace, 0xFFFF on an exit trace, else 0.
#pragma once

#include <cstdint>

extern "C" {
using LogInitFn = std::int32_t(__cdecl*)();
using LogDeinitFn = std::int32_t(__cdecl*)();
using LogApplySettingsFn = std::int32_t(__cdecl*)();
using LogSetSettingsFileFn = std::int32_t(__cdecl*)(const wchar_t* path);
using LogEnableFn = std::int32_t(__cdecl*)(std::int32_t enable);
using LogSetLevelFn = std::int32_t(__cdecl*)(std::uint32_t maxLevel);
using LogSetPathFn = std::int32_t(__cdecl*)(const wchar_t* folder);
using LogSetTypeFn = std::int32_t(__cdecl*)(std::uint32_t type);
using LogSetModeFn = std::int32_t(__cdecl*)(std::uint32_t mode);
using LogSetMaxSizeFn = std::int32_t(__cdecl*)(std::uint32_t bytes);
using LogSetDepthFn = std::int32_t(__cdecl*)(std::uint32_t depth);
using LogWriteFn = std::int32_t(__cdecl*)(std::uint16_t depthChange, const std::uint32_t* level, const void* moduleBase,
                                          const wchar_t* function, const wchar_t* format, ...);
using LogIsEnabledFn = std::int32_t(__cdecl*)();
using LogMonitorSettingsFn = std::int32_t(__cdecl*)(std::int32_t monitor);
using LogUninitDeskMetricsFn = std::int32_t(__cdecl*)();
using LogTrackEventFn = std::int32_t(__cdecl*)(const wchar_t* name);
using LogTrackEventDataFn = std::int32_t(__cdecl*)(const wchar_t* name, const wchar_t* data);
using LogRemoveModuleFn = std::int32_t(__cdecl*)(const void* moduleBase);
using LogGetLevelFn = std::int32_t(__cdecl*)();
}

namespace logcore {
// Where LogSetType sends lines.
inline constexpr std::uint32_t kTypeFile = 1;
inline constexpr std::uint32_t kTypeConsole = 2;
inline constexpr std::uint32_t kTypeFileAndConsole = 3;
inline constexpr std::uint16_t kDepthEnter = 1;
inline constexpr std::uint16_t kDepthLeave = 0xFFFF;
}  // namespace logcore
