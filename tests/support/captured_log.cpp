#include "support/captured_log.h"

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
  auto messages = Bind<CaptureMessagesFn>(module_.get(), "CaptureMessages");
  lock_ = Bind<CaptureLockFn>(module_.get(), "CaptureLock");
  unlock_ = Bind<CaptureLockFn>(module_.get(), "CaptureUnlock");
  clear_ = Bind<CaptureClearFn>(module_.get(), "CaptureClear");
  outstandingInits_ = Bind<CaptureOutstandingInitsFn>(module_.get(), "CaptureOutstandingInits");
  if (lock_ && unlock_ && clear_ && outstandingInits_) messages_ = messages;
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
