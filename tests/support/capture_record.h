// What the capturing logcore.dll keeps per message, and its extra exports for tests.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace testsupport {

inline constexpr unsigned kCaptureFunctionChars = 261;
inline constexpr unsigned kCaptureTextChars = 4096;

// One captured message as tests see it, and as the capturing library keeps it.
struct LogEntry {
  DWORD threadId;
  std::uint16_t depthChange;
  std::uint32_t level;
  const void* moduleBase;
  std::wstring function;
  std::wstring text;
};

struct CaptureRecord {
  std::uint32_t threadId;
  std::uint16_t depthChange;
  std::uint32_t level;
  const void* moduleBase;
  wchar_t function[kCaptureFunctionChars];
  wchar_t text[kCaptureTextChars];
};

}  // namespace testsupport

extern "C" {
// Number of messages kept.
using CaptureCountFn = std::int32_t(__cdecl*)();
// Copies message index into *out: 0, 1168 when there is no such message, 13 for a null out.
using CaptureGetFn = std::int32_t(__cdecl*)(std::int32_t index, testsupport::CaptureRecord* out);
using CaptureClearFn = std::int32_t(__cdecl*)();
// LogInit calls not yet matched by LogDeinit.
using CaptureOutstandingInitsFn = std::int32_t(__cdecl*)();
}
