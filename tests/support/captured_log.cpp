#include "support/captured_log.h"

#include <memory>

#include "support/scratch_folder.h"

namespace testsupport {
namespace {

template <class Fn>
Fn Bind(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

}  // namespace

CapturedLog::CapturedLog() : module_(::LoadLibraryW((ExeFolder() + L"logcore.dll").c_str())) {
  if (!module_) return;
  auto count = Bind<CaptureCountFn>(module_.get(), "CaptureCount");
  get_ = Bind<CaptureGetFn>(module_.get(), "CaptureGet");
  clear_ = Bind<CaptureClearFn>(module_.get(), "CaptureClear");
  outstandingInits_ = Bind<CaptureOutstandingInitsFn>(module_.get(), "CaptureOutstandingInits");
  if (get_ && clear_ && outstandingInits_) count_ = count;
}

std::vector<LogEntry> CapturedLog::entries() const {
  std::vector<LogEntry> result;
  if (!available()) return result;
  // Too large for the stack.
  auto record = std::make_unique<CaptureRecord>();
  const std::int32_t n = count_();
  for (std::int32_t i = 0; i < n; ++i) {
    if (get_(i, record.get()) != 0) break;
    result.push_back(LogEntry{record->threadId, record->depthChange, record->level, record->moduleBase,
                              record->function, record->text});
  }
  return result;
}

std::vector<LogEntry> CapturedLog::entriesFor(std::wstring_view function) const {
  std::vector<LogEntry> result;
  for (auto& entry : entries()) {
    if (entry.function == function) result.push_back(std::move(entry));
  }
  return result;
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
