#include "boottime/boot_time_analyser_state.h"

#include <mutex>

#include "common/log.h"

namespace boottime {

void AnalyserState::Summarise() {
  hasData_ = !analyser_.Empty();
  summary_ = analyser_.GetTotal();
}

void AnalyserState::Analyse(const BootTimeData* data) {
  KY_TRACE(L"boottime::AnalyserState::Analyse");
  std::lock_guard hold(lock_);
  analyser_.Clear();
  analyser_.Start(data);
  if (data == nullptr || data->Empty()) {
    Summarise();
    status_ = kStatusNoResults;
    return;
  }
  analyser_.AnalyseData();
  Summarise();
  status_ = kStatusAvailable;
}

void AnalyserState::Load(const std::wstring& path) {
  KY_TRACE(L"boottime::AnalyserState::Load");
  std::lock_guard hold(lock_);
  analyser_.Clear();
  const bool loaded = analyser_.LoadLastBootProcessImpactFromDisk(path);
  Summarise();
  status_ = loaded ? kStatusAvailable : kStatusNoResults;
}

bool AnalyserState::Store(const std::wstring& path) {
  KY_TRACE(L"boottime::AnalyserState::Store");
  std::lock_guard hold(lock_);
  return analyser_.StoreProcessImpactOnDisk(path);
}

std::uint32_t AnalyserState::Summary(BootCounters* total) {
  std::lock_guard hold(lock_);
  if (total != nullptr) *total = summary_;
  return status_;
}

std::uint32_t AnalyserState::GetImpacts(const ProcessKey* key, ky::IList<ProcessImpact>& out) {
  const ProcessKey every;
  std::lock_guard hold(lock_);
  analyser_.GetImpacts(key != nullptr ? *key : every, out);
  return status_;
}

bool AnalyserState::HasData() {
  std::lock_guard hold(lock_);
  return hasData_;
}

void AnalyserState::WriteListing(std::wostream& out) {
  std::lock_guard hold(lock_);
  analyser_.WriteListing(out);
}

}  // namespace boottime
