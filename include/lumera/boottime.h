// Boot-time interfaces of LumeraPlg.dll and the records they exchange.
//
// Result codes of the queries: 0 results available, 1 not yet known, 2 no results, or a
// Windows error code. Records carry std::wstring: a client must be built with the same
// C++ runtime as the module (all of this project's binaries are).
#pragma once

#include <cstdint>
#include <string>

#include "lumera/ky_base.h"
#include "lumera/ky_list.h"

namespace boottime {

inline constexpr std::uint32_t kStatusAvailable = 0;
inline constexpr std::uint32_t kStatusNotYetKnown = 1;
inline constexpr std::uint32_t kStatusNoResults = 2;

// Boot impact counters, always in this order: kernel and user processor time (ms),
// bytes read, written and other.
struct BootCounters {
  std::uint32_t kernel = 0;
  std::uint32_t user = 0;
  std::uint32_t read = 0;
  std::uint32_t write = 0;
  std::uint32_t other = 0;
};

// Selects impacts: a pid of 0 and an empty name select every process; otherwise a
// non-zero pid must match and a non-empty name must match without regard to case.
struct ProcessKey {
  std::uint64_t ppid = 0;
  std::uint64_t pid = 0;
  std::wstring name;
};

struct ProcessImpact {
  std::uint64_t ppid = 0;
  std::uint64_t pid = 0;
  std::wstring name;  // full image path
  std::uint32_t kernel = 0;
  std::uint32_t user = 0;
  std::uint32_t read = 0;
  std::uint32_t write = 0;
  std::uint32_t other = 0;
};

struct DiskSpeed {
  double minimum = 0;
  double maximum = 0;
  double average = 0;
};

// Told when a processing run has finished; called on the plug-in's or the connector's thread.
struct IBootTimeEvents {
  virtual void OnDataAnalysed(std::uint32_t status) = 0;  // slot 0
};

struct IBootTime : IServPlugin {
  virtual std::uint32_t GetBootTime(std::uint32_t* milliseconds) = 0;                          // slot 5
  virtual std::uint32_t GetTotalBootImpact(BootCounters* total) = 0;                           // slot 6
  // Appends the matching impacts to *impacts (left as it was on failure).
  virtual std::uint32_t GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) = 0;  // slot 7
  virtual std::uint32_t GetDiskSpeed(DiskSpeed* speed) = 0;                                    // slot 8
  // 183 when the listener is already registered; 1168 when removing an unknown one.
  virtual std::uint32_t AddListener(IBootTimeEvents* listener) = 0;                            // slot 9
  virtual std::uint32_t RemoveListener(IBootTimeEvents* listener) = 0;                         // slot 10
  virtual void OnDataAnalysed(std::uint32_t status) = 0;                                       // slot 11
  // Appends the newest `count` records of the boot history (0: all kept, at most 100), oldest
  // first, each one compact JSON object in UTF-8; *records is left as it was on failure.
  // Objects built before the history existed answer 120 (ERROR_CALL_NOT_IMPLEMENTED).
  virtual std::uint32_t GetBootHistory(std::uint32_t /*count*/, ky::IList<std::string>* /*records*/) {  // slot 12
    return 120;
  }
};

// The "boottimepipe" server object.
struct IBootTimeComm : IServPlugin {};

// Synchronous client of "boottimepipe": the IBootTime queries answered by the server.
// Each query blocks for at most 5000 ms.
struct IBootTimeCommClient : IBootTime {};

// Answers to asynchronous queries, called on the connector's thread.
struct IBootTimeResponse {
  virtual void OnGetBootTime(std::uint32_t code, std::uint32_t milliseconds) = 0;
  virtual void OnGetTotalBootImpact(std::uint32_t code, const BootCounters& total) = 0;
  virtual void OnGetBootImpact(std::uint32_t code, const ky::IList<ProcessImpact>& impacts) = 0;
  virtual void OnGetDiskSpeed(std::uint32_t code, const DiskSpeed& speed) = 0;
  // Observers written before the history query existed ignore its answers.
  virtual void OnGetBootHistory(std::uint32_t /*code*/, const ky::IList<std::string>& /*records*/) {}
};

// Asynchronous client: each call posts the query and returns the post's result; the
// answer reaches every IBootTimeResponse registered when it arrives.
struct IBootTimeCommClientAsync : IKyBaseInterface {
  virtual std::uint32_t GetBootTimeAsync() = 0;
  virtual std::uint32_t GetTotalBootImpactAsync() = 0;
  virtual std::uint32_t GetBootImpactAsync(const ProcessKey* key) = 0;
  virtual std::uint32_t GetDiskSpeedAsync() = 0;
  virtual std::uint32_t AddResponseObserver(IBootTimeResponse* observer) = 0;
  virtual std::uint32_t RemoveResponseObserver(IBootTimeResponse* observer) = 0;
  // Posts the history query for the newest `count` records (0: all kept).
  virtual std::uint32_t GetBootHistoryAsync(std::uint32_t /*count*/) { return 120; }
};

}  // namespace boottime
