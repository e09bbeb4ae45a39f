// Decides when the boot has finished. The process tracking it runs on its own thread is
// declared here and defined in processes.h and processes_monitor.h.
#pragma once

namespace boottime {

class BootTimeMonitor {
 public:
  class Processes;
  class ProcessesMonitor;
};

}  // namespace boottime
