#include "support/captured_log.h"

#include <algorithm>

#include "support/scratch_folder.h"

namespace testsupport {

CapturedLog::CapturedLog() {
  if (module_.Load(ExeFolder() + L"logcore.dll") != 0) return;
  (void)module_.Bind({ky::BindAs("CaptureMessages", messages_), ky::BindAs("CaptureLock", lock_),
                      ky::BindAs("CaptureUnlock", unlock_), ky::BindAs("CaptureClear", clear_),
                      ky::BindAs("CaptureOutstandingInits", outstandingInits_)});
  clear();
}

std::vector<LogEntry> CapturedLog::entries() const {
  if (!available()) return {};
  lock_();
  std::vector<LogEntry> copy = *messages_();
  unlock_();
  return copy;
}

std::vector<LogEntry> CapturedLog::entriesFor(std::wstring_view function) const {
  std::vector<LogEntry> result;
  for (auto& entry : entries()) {
    if (entry.function == function) result.push_back(std::move(entry));
  }
  return result;
}

std::size_t CapturedLog::countUnder(std::wstring_view function, std::wstring_view text) const {
  const auto under = entriesFor(function);
  return static_cast<std::size_t>(std::count_if(under.begin(), under.end(), [&](const LogEntry& e) { return e.text == text; }));
}

void CapturedLog::clear() {
  if (available()) clear_();
}

std::size_t CapturedLog::count(std::wstring_view text) const {
  std::size_t n = 0;
  for (const auto& entry : entries()) {
    if (entry.text.find(text) != std::wstring::npos) ++n;
  }
  return n;
}

int CapturedLog::outstandingInits() const { return available() ? outstandingInits_() : 0; }

}  // namespace testsupport
