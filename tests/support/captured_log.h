// The capturing logcore.dll that tests built with CAPTURE_LOG find beside themselves keeps
// every message in memory; module code they link logs into it through the normal logging
// adapter, and a CapturedLog reads what it kept.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/module_library.h"

namespace testsupport {

// One captured message, as the capturing library keeps it and tests see it.
struct LogEntry {
  DWORD threadId;
  std::uint16_t depthChange;
  std::uint32_t level;
  const void* moduleBase;
  std::wstring function;
  std::wstring text;
};

}  // namespace testsupport

// The capturing library's exports beyond logcore's own.
extern "C" {
// The messages kept, oldest first; to be read only between CaptureLock and CaptureUnlock.
using CaptureMessagesFn = const std::vector<testsupport::LogEntry>*(__cdecl*)();
using CaptureLockFn = void(__cdecl*)();
using CaptureClearFn = std::int32_t(__cdecl*)();
// LogInit calls not yet matched by LogDeinit.
using CaptureOutstandingInitsFn = std::int32_t(__cdecl*)();
}

namespace testsupport {

class CapturedLog {
 public:
  // Loads <test program folder>\logcore.dll and drops what was logged before, so each
  // CapturedLog sees only what follows it; available() is false if the library is missing or is
  // not the capturing one. Holding the library keeps the messages alive between log calls.
  CapturedLog();

  bool available() const { return messages_ != nullptr; }

  // Every message so far, oldest first.
  std::vector<LogEntry> entries() const;
  // Messages written under this function name, oldest first.
  std::vector<LogEntry> entriesFor(std::wstring_view function) const;
  // How many messages under this function name have exactly the given text.
  std::size_t countUnder(std::wstring_view function, std::wstring_view text) const;
  void clear();
  // Whether any message's text contains the given text, and how many do.
  bool contains(std::wstring_view text) const { return count(text) > 0; }
  std::size_t count(std::wstring_view text) const;
  // LogInit calls not yet matched by LogDeinit.
  int outstandingInits() const;

 private:
  ky::ModuleLibrary module_;
  CaptureMessagesFn messages_ = nullptr;
  CaptureLockFn lock_ = nullptr;
  CaptureLockFn unlock_ = nullptr;
  CaptureClearFn clear_ = nullptr;
  CaptureOutstandingInitsFn outstandingInits_ = nullptr;
};

}  // namespace testsupport
