// A source of process notifications and its observer, as the process tracking sees them.
#pragma once

#include <cstdint>
#include <string>

#include "lumera/ky_base.h"

namespace boottime {

struct ProcessEvent {
  std::uint64_t ppid = 0;
  std::uint64_t pid = 0;
  std::wstring name;  // image path, else command line, else empty
};

class IProcessDPObserver {
 public:
  virtual void OnProcessStarted(const ProcessEvent& event) = 0;  // slot 0
  virtual void OnProcessStopped(const ProcessEvent& event) = 0;  // slot 1

 protected:
  ~IProcessDPObserver() = default;
};

class IProcessDP {
 public:
  // Binds to the host; false when the source is not available.
  [[nodiscard]] virtual bool Init(IServMain* host) = 0;  // slot 0
  virtual void UnInit() = 0;                             // slot 1
  // Starts notifying `observer`, on the source's own thread; false when it cannot.
  [[nodiscard]] virtual bool Start(IProcessDPObserver* observer) = 0;  // slot 2
  virtual void Stop() = 0;                                             // slot 3
  virtual ~IProcessDP() = default;                                     // slot 4
};

}  // namespace boottime
