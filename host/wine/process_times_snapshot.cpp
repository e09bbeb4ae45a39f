#include "wine/process_times_snapshot.h"

namespace host::wine {

bool ProcessTimesSnapshot::Get(DWORD pid, Times& out) {
  std::lock_guard hold(lock_);
  if (!taken_ || ::GetTickCount() - takenTick_ >= kMaxAgeMs) {
    if (!Refresh()) return false;
  }
  const auto it = times_.find(pid);
  if (it == times_.end()) return false;
  out = it->second;
  return true;
}

bool ProcessTimesSnapshot::Refresh() {
  if (!list_.Refresh()) return false;
  times_.clear();
  list_.ForEach([this](const SystemProcess& process) {
    times_[process.pid] = Times{process.created, process.kernel, process.user};
  });
  takenTick_ = ::GetTickCount();
  taken_ = true;
  return true;
}

}  // namespace host::wine
