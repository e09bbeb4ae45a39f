// The processing run and what follows it: the decision to measure or reload, the result
// files, the listeners and the report to the central component.
#include <sstream>
#include <utility>

#include "boottime/boot_info_file.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/stop_wait.h"
#include "plugin/boottime_plugin.h"
#include "users/user_logon.h"

namespace boottime {
namespace {

constexpr std::int64_t kSameBootMs = 2000;

// The log takes messages of about 4000 characters, so a dump goes out one line at a time.
void LogLines(const wchar_t* function, std::uint32_t level, const std::wstring& text) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find(L'\n', start);
    if (end == std::wstring::npos) end = text.size();
    if (end > start) logging::Write(level, function, L"%s", text.substr(start, end - start).c_str());
    start = end + 1;
  }
}

}  // namespace

DWORD WINAPI CBootTimePlugin::ProcessingThreadProc(LPVOID context) {
  KY_TRACE(L"boottime::CBootTimePlugin::ProcessingThreadProc");
  if (context == nullptr) {
    KY_LOG(logging::kLevelError, L"null context pointer");
    return 0;
  }
  ky::GuardedVoid(L"boottime::CBootTimePlugin::ProcessingThread",
                  [context] { static_cast<CBootTimePlugin*>(context)->ProcessingThread(); });
  return 0;
}

bool CBootTimePlugin::StopRequested() const {
  // A missing event counts as set, so a plug-in without one never waits or reports.
  return ky::WaitForStop(monitorEvent_.get(), 0);
}

std::int64_t CBootTimePlugin::GetLastSystemStartTime() {
  KY_TRACE(L"boottime::CBootTimePlugin::GetLastSystemStartTime");
  BootInfoRecord record;
  std::string error;
  if (ReadBootInfoFile(settingsFolder_ + kBootInfoFileName, record, error) != BootInfoStatus::kOk) return 0;
  return record.systemStart.value_or(0);
}

void CBootTimePlugin::ProcessingThread() {
  KY_TRACE(L"boottime::CBootTimePlugin::ProcessingThread");
  const bool userLogged = CUserLogon::IsUserLogged();
  std::uint32_t status = kStatusNoResults;
  bool stopped = false;
  enum class Next { kMonitor, kReload, kDone } next = Next::kMonitor;
  measuredRun_ = false;

  const std::int64_t lastStart = GetLastSystemStartTime();
  if (lastStart == 0) {
    KY_LOG(logging::kLevelInfo, L"last system boot time is 0");
    if (!userLogged) {
      KY_LOG(logging::kLevelInfo, L"must start processes monitor (user not logged)");
    } else {
      // A boot that is already over cannot be measured, and there is nothing to reload.
      KY_LOG(logging::kLevelInfo, L"no boot time (user logged)");
      next = Next::kDone;
    }
  } else {
    const std::int64_t currentStart = SystemStartTime(clock_);
    KY_LOG(logging::kLevelInfo, L"lastSystemStartTime=%lld ; currentSystemStartTime=%lld", lastStart, currentStart);
    const std::int64_t diff = lastStart > currentStart ? lastStart - currentStart : currentStart - lastStart;
    if (diff >= kSameBootMs) {
      KY_LOG(logging::kLevelInfo, L"must start processes monitor (diff system start time)");
    } else {
      KY_LOG(logging::kLevelInfo, L"load data from file");
      next = Next::kReload;
    }
  }

  if (next == Next::kMonitor) {
    monitor_.Start(monitorEvent_.get());
    if (StopRequested()) {
      stopped = true;
      next = Next::kDone;
    } else if (monitor_.Result() != kStatusAvailable) {
      KY_LOG(logging::kLevelInfo, L"Monitor did not detect boot time; Trying to load last boot time data");
      next = Next::kReload;
    } else {
      std::wostringstream dump;
      data_.Dump(dump);
      KY_LOG(logging::kLevelInfo, L"BOOT DATA:");
      LogLines(kyTrace_.Name(), logging::kLevelDebug, dump.str());
      analyser_.Analyse(&data_);
      diskPerformance_.Start(monitorEvent_.get());
      stopped = StopRequested();
      measuredRun_ = true;
      next = Next::kDone;
    }
  }
  if (next == Next::kReload) {
    monitor_.LoadLastBootTimeFromDisk(settingsFolder_);
    analyser_.Load(settingsFolder_ + kProcessImpactFileName);
  }
  if (!stopped && monitor_.Result() == kStatusAvailable && analyser_.Status() == kStatusAvailable) {
    status = kStatusAvailable;
  }
  {
    std::lock_guard hold(statusLock_);
    overallStatus_ = status;
  }
  OnDataAnalysed(status);
}

void CBootTimePlugin::DumpRun() {
  KY_TRACE(L"boottime::CBootTimePlugin::DumpRun");
  std::wostringstream out;
  monitor_.WriteProcessListing(out);
  data_.Dump(out);
  analyser_.WriteListing(out);
  LogLines(kyTrace_.Name(), logging::kLevelDebug, out.str());
}

void CBootTimePlugin::OnDataAnalysed(std::uint32_t status) {
  KY_TRACE(L"boottime::CBootTimePlugin::OnDataAnalysed");
  ky::GuardedVoid(L"boottime::CBootTimePlugin::OnDataAnalysed", [&] {
    KY_LOG(logging::kLevelInfo, L"OnDataAnalysed error code %d", status);
    DumpRun();
    if (monitor_.Result() == kStatusAvailable && analyser_.Status() == kStatusAvailable) {
      monitor_.StoreBootTimeOnDisk(settingsFolder_);
      (void)analyser_.Store(settingsFolder_ + kProcessImpactFileName);
    }
    report_.Start(monitorEvent_.get(), componentManager_, *this);
    listeners_.Tell(status);
  });
}

}  // namespace boottime
