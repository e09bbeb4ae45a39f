// The boot-time plug-in's report to the central component, run on a thread of its own after
// each processing run: the process impacts, then the startup apps with their boot times.
//
// Threads: Start and Join are called by the plug-in's processing thread and by its Stop;
// the report thread reads the results through IBootTime. The stop signal is the plug-in's
// monitor event: whoever owns it sets it, then joins here.
#pragma once

#include <windows.h>

#include <mutex>
#include <thread>

#include "lumera/boottime.h"
#include "lumera/ky_base.h"

namespace boottime {

class CentralReport {
 public:
  CentralReport() = default;
  ~CentralReport() { Join(); }
  CentralReport(const CentralReport&) = delete;
  CentralReport& operator=(const CentralReport&) = delete;

  // Joins an earlier report, then starts one unless `stopEvent` is already set (checked under
  // the lock Join takes, so a report started here is always joined). The three must outlive
  // the report thread.
  void Start(HANDLE stopEvent, IPlgComponentManager* manager, IBootTime& results);
  // Waits for the report thread, if any; set the stop event first to make it short.
  void Join();

 private:
  static void Run(HANDLE stopEvent, IPlgComponentManager* manager, IBootTime& results);

  std::mutex lock_;  // guards thread_ between the processing thread and Stop
  std::thread thread_;
};

}  // namespace boottime
