// "LoadUsage": samples the processors' busy share (GetSystemTimes) and the physical disks'
// busy share (IOCTL_DISK_PERFORMANCE) once a second on its own thread and answers the
// minimum, maximum and average of the last kWindowSeconds. Under Wine, which keeps no disk
// counters, the disks' busy share comes from the Linux side's /proc/diskstats instead;
// elsewhere, without counters, disk queries answer the system's error code.
#include <windows.h>
#include <winioctl.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/log.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "host_plugin.h"
#include "thread_name.h"
#include "loadusage_window.h"
#include "lumera/interface_ids.h"
#include "lumera_dev/console_session.h"
#include "lumera/loadusage.h"
#include "wine/linux_disk_busy.h"

namespace host {
namespace {

constexpr DWORD kSampleMs = 1000;
constexpr std::size_t kWindowSeconds = 60;
constexpr int kMaxDrives = 16;

// Cumulative idle and total time of the processors, or of the disks, in 100-ns units.
struct Reading {
  std::uint64_t idle = 0;
  std::uint64_t total = 0;
};

class DiskCounters {
 public:
  // Opens every physical drive that answers the query; remembers why when none does.
  DiskCounters() {
    for (int i = 0; i < kMaxDrives; ++i) {
      const std::wstring name = L"\\\\.\\PhysicalDrive" + std::to_wstring(i);
      ky::unique_file drive(::CreateFileW(name.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
      if (!drive) {
        if (i == 0) error_ = ::GetLastError();
        break;
      }
      DISK_PERFORMANCE performance{};
      const std::uint32_t code = Query(drive.get(), performance);
      if (code != 0) {
        if (drives_.empty()) error_ = code;
        continue;
      }
      drives_.push_back(std::move(drive));
    }
    if (!drives_.empty()) error_ = 0;
    if (error_ == 0 && drives_.empty()) error_ = ERROR_NOT_SUPPORTED;
    wine::LinuxDiskBusy busy;
    if (error_ != 0 && lumera::dev::RunningUnderWine() && wine::ReadLinuxDiskBusy(busy)) {
      linux_ = true;
      error_ = 0;
    }
  }

  // True when the figures come from the Linux disk statistics.
  bool FromLinux() const { return linux_; }

  // 0, or the code for which the system has no disk counters.
  std::uint32_t Error() const { return error_; }

  // Sums the idle and query times of every drive; false when a drive stopped answering.
  bool Read(Reading& reading) {
    reading = Reading{};
    if (linux_) return ReadLinux(reading);
    for (const auto& drive : drives_) {
      DISK_PERFORMANCE performance{};
      if (Query(drive.get(), performance) != 0) return false;
      reading.idle += static_cast<std::uint64_t>(performance.IdleTime.QuadPart);
      reading.total += static_cast<std::uint64_t>(performance.QueryTime.QuadPart);
    }
    return !drives_.empty();
  }

 private:
  static std::uint32_t Query(HANDLE drive, DISK_PERFORMANCE& performance) {
    DWORD bytes = 0;
    ::SetLastError(0);
    if (::DeviceIoControl(drive, IOCTL_DISK_PERFORMANCE, nullptr, 0, &performance, sizeof performance, &bytes, nullptr)) {
      return 0;
    }
    const DWORD code = ::GetLastError();
    return code != 0 ? code : ERROR_NOT_SUPPORTED;
  }

  // Elapsed time for every disk against the time they spent on I/O, in milliseconds.
  static bool ReadLinux(Reading& reading) {
    wine::LinuxDiskBusy busy;
    if (!wine::ReadLinuxDiskBusy(busy)) return false;
    reading.total = ::GetTickCount64() * busy.disks;
    reading.idle = reading.total > busy.busyMs ? reading.total - busy.busyMs : 0;
    return true;
  }

  std::vector<ky::unique_file> drives_;
  std::uint32_t error_ = ERROR_NOT_SUPPORTED;
  bool linux_ = false;
};

bool ReadProcessors(Reading& reading) {
  FILETIME idle{}, kernel{}, user{};
  if (!::GetSystemTimes(&idle, &kernel, &user)) return false;
  reading.idle = ky::FileTimeToU64(idle);
  reading.total = ky::FileTimeToU64(kernel) + ky::FileTimeToU64(user);  // kernel time includes idle time
  return true;
}

class LoadUsagePlugin final : public InterfacePlugin<ILoadUsage> {
 public:
  LoadUsagePlugin() : InterfacePlugin(lumera::ids::LoadUsagePlugin), stopEvent_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (disks_.Error() != 0) {
      logging::Write(logging::kLevelWarning, L"host::LoadUsagePlugin::LoadUsagePlugin",
                     L"disk performance counters unavailable 0x%x", disks_.Error());
    } else if (disks_.FromLinux()) {
      logging::Write(logging::kLevelInfo, L"host::LoadUsagePlugin::LoadUsagePlugin",
                     L"disk usage from the Linux disk statistics");
    }
    if (stopEvent_) sampler_ = std::thread([this] {
      NameThisThread(L"lumera-usage");
      Sample();
    });
  }
  ~LoadUsagePlugin() override { Shutdown(); }

  void Shutdown() override {
    if (stopEvent_) ::SetEvent(stopEvent_.get());
    if (sampler_.joinable()) sampler_.join();
  }

  std::uint32_t GetCurrentUsage(std::uint32_t kind, double* percent) override {
    KY_TRACE(L"host::LoadUsagePlugin::GetCurrentUsage");
    return Answer(kind, percent, [](const LoadWindow& window) { return window.Latest(); });
  }

  std::uint32_t GetUsage(std::uint32_t kind, lumera::LoadUsageFigures* figures) override {
    KY_TRACE(L"host::LoadUsagePlugin::GetUsage");
    return Answer(kind, figures, [](const LoadWindow& window) { return window.Figures(); });
  }

 private:
  // `read` of the window for `kind` into *out; *out is untouched unless the result is 0.
  template <class Out, class Read>
  std::uint32_t Answer(std::uint32_t kind, Out* out, Read read) {
    if (out == nullptr) return ERROR_INVALID_DATA;
    std::lock_guard hold(lock_);
    const LoadWindow* window = nullptr;
    const std::uint32_t code = Window(kind, window);
    if (code == 0) *out = read(*window);
    return code;
  }

  // Caller holds lock_.
  std::uint32_t Window(std::uint32_t kind, const LoadWindow*& window) const {
    if (kind == lumera::kLoadKindProcessor) {
      window = &processors_;
    } else if (kind == lumera::kLoadKindDisk) {
      if (disks_.Error() != 0) return disks_.Error();
      window = &disk_;
    } else {
      return ERROR_INVALID_PARAMETER;
    }
    return window->Empty() ? ERROR_NOT_READY : 0;
  }

  void Sample() {
    Reading cpuBefore, diskBefore;
    bool haveCpu = ReadProcessors(cpuBefore);
    bool haveDisk = disks_.Error() == 0 && disks_.Read(diskBefore);
    while (::WaitForSingleObject(stopEvent_.get(), kSampleMs) == WAIT_TIMEOUT) {
      Reading cpuNow, diskNow;
      const bool cpu = ReadProcessors(cpuNow);
      const bool disk = disks_.Error() == 0 && disks_.Read(diskNow);
      {
        std::lock_guard hold(lock_);
        if (cpu && haveCpu) processors_.Add(BusyPercent(cpuBefore.idle, cpuNow.idle, cpuBefore.total, cpuNow.total));
        if (disk && haveDisk) disk_.Add(BusyPercent(diskBefore.idle, diskNow.idle, diskBefore.total, diskNow.total));
      }
      haveCpu = cpu;
      haveDisk = disk;
      cpuBefore = cpuNow;
      diskBefore = diskNow;
    }
  }

  DiskCounters disks_;
  ky::unique_handle stopEvent_;
  mutable std::mutex lock_;
  LoadWindow processors_{kWindowSeconds};
  LoadWindow disk_{kWindowSeconds};
  std::thread sampler_;
};

std::unique_ptr<HostPlugin> Make(HostContext&) { return std::make_unique<LoadUsagePlugin>(); }

}  // namespace
}  // namespace host

LUMERA_HOST_PLUGIN(L"LoadUsage", &host::Make);
