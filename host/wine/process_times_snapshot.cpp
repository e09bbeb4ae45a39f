#include "wine/process_times_snapshot.h"

namespace host::wine {

bool ProcessTimesSnapshot::Get(DWORD pid, Times& out) {
  std::lock_guard hold(lock_);
  const DWORD now = ::GetTickCount();
  auto it = times_.find(pid);
  // Listing 300 processes takes Wine ~24 ms, and a sampling pass over them can outlast kMaxAgeMs
  // several times: a process asked for again is what tells the next pass.
  const bool askedAgain = it == times_.end() || (it->second.served && now - it->second.servedTick >= kMaxAgeMs);
  if (!taken_ || now - takenTick_ >= kMaxServeMs || (now - takenTick_ >= kMaxAgeMs && askedAgain)) {
    if (!Refresh()) return false;
    it = times_.find(pid);
  }
  if (it == times_.end()) return false;
  it->second.served = true;
  it->second.servedTick = now;
  out = it->second.times;
  return true;
}

bool ProcessTimesSnapshot::Refresh() {
  if (!list_.Refresh()) return false;
  times_.clear();
  list_.ForEach([this](const SystemProcess& process) {
    times_[process.pid] = Listed{Times{process.created, process.kernel, process.user}};
  });
  takenTick_ = ::GetTickCount();
  taken_ = true;
  return true;
}

}  // namespace host::wine
