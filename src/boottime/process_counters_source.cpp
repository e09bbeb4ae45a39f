#include "boottime/process_counters_source.h"

namespace boottime {

bool SystemCountersSource::GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel,
                                           FILETIME* user) {
  return ::GetProcessTimes(process, creation, exit, kernel, user) != FALSE;
}

bool SystemCountersSource::GetProcessIoCounters(HANDLE process, IO_COUNTERS* counters) {
  return ::GetProcessIoCounters(process, counters) != FALSE;
}

bool SystemCountersSource::GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) {
  return ::GetSystemTimes(idle, kernel, user) != FALSE;
}

std::uint32_t SystemCountersSource::NumberOfProcessors() {
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  return info.dwNumberOfProcessors;
}

SystemCountersSource& SystemCountersSource::Instance() {
  static SystemCountersSource source;
  return source;
}

}  // namespace boottime
