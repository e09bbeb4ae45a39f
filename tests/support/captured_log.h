// Reads what the capturing logcore.dll beside the test program has kept. Tests built with
// CAPTURE_LOG get that library; module code they link logs into it through the normal
// logging adapter, and a CapturedLog looks at the result.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_handle.h"
#include "support/capture_record.h"

namespace testsupport {

class CapturedLog {
 public:
  // Loads <test program folder>\logcore.dll; available() is false if it is missing or is not
  // the capturing one. Holding the library keeps the messages alive between log calls.
  CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  bool available() const { return count_ != nullptr; }

  // Every message so far, oldest first.
  std::vector<LogEntry> entries() const;
  // Messages written under this function name, oldest first.
  std::vector<LogEntry> entriesFor(std::wstring_view function) const;
  void clear();
  // Whether any message's text contains the given text, and how many do.
  bool contains(std::wstring_view text) const { return count(text) > 0; }
  std::size_t count(std::wstring_view text) const;
  // LogInit calls not yet matched by LogDeinit.
  int outstandingInits() const;

 private:
  ky::unique_module module_;
  CaptureCountFn count_ = nullptr;
  CaptureGetFn get_ = nullptr;
  CaptureClearFn clear_ = nullptr;
  CaptureOutstandingInitsFn outstandingInits_ = nullptr;
};

}  // namespace testsupport
