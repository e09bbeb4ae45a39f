// Process tracking fed by the host's real "wmiprocessdp" while real child processes start
// and end, and the host's "LoadUsage": its arithmetic, and its answer as the disk measurement
// meets it.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <string>

#include "boottime/boot_time_disk_performance.h"
#include "boottime/processes.h"
#include "boottime/processes_monitor.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "fakes.h"
#include "lumera/interface_ids.h"
#include "lumera/loadusage.h"
#include "lumera/wmiprocessdp.h"
#include "plugins/loadusage_window.h"
#include "support/plugin_stub.h"
#include "support/programs.h"
#include "support/scratch_folder.h"
#include "support/test_thread.h"

namespace boottime {
namespace {

constexpr DWORD kDeadlineMs = 10000;

class Child {
 public:
  Child() {
    eventName_ = L"boottime_child_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count_);
    done_.reset(::CreateEventW(nullptr, TRUE, FALSE, eventName_.c_str()));
    process_ = testsupport::StartProgram(L"\"" + testsupport::ExeFolder() + L"boottime_child.exe\" " + eventName_);
    pid_ = process_ ? ::GetProcessId(process_.get()) : 0;
  }
  ~Child() { End(); }
  std::uint32_t Pid() const { return pid_; }
  // Asks the child to end and waits (bounded) until it has.
  bool End() {
    if (!process_) return true;
    ::SetEvent(done_.get());
    const bool ended = ::WaitForSingleObject(process_.get(), kDeadlineMs) == WAIT_OBJECT_0;
    process_.reset();
    return ended;
  }

 private:
  static inline int count_ = 0;
  std::wstring eventName_;
  ky::unique_handle done_;
  ky::unique_handle process_;
  std::uint32_t pid_ = 0;
};

const TrackedProcess* Find(const BootTimeMonitor::Processes& processes, std::uint32_t pid) {
  for (const TrackedProcess& record : processes.List()) {
    if (record.pid == pid) return &record;
  }
  return nullptr;
}

// Applies queued notifications until `done` holds or the deadline passes.
template <class Done>
bool ApplyUntil(BootTimeMonitor::ProcessesMonitor& monitor, BootTimeMonitor::Processes& processes, Done done) {
  return testsupport::WaitUntil([&] {
    monitor.ApplyEvents(processes, true, L"test");
    return done();
  }, kDeadlineMs);
}

TEST(HostProcessTracking, ChildProcessesAreFollowedFromStartToEnd) {
  host::HostConfig config;
  host::ComponentManager host(config);
  BootTimeData data;
  BootTimeMonitor::Processes processes(&data);
  {
    BootTimeMonitor::ProcessesMonitor monitor(&host);
    ASSERT_TRUE(monitor.Start()) << "the host's wmiprocessdp plug-in was not reached";

    Child first;
    Child second;
    ASSERT_NE(first.Pid(), 0u) << "boottime_child.exe did not start";
    ASSERT_NE(second.Pid(), 0u);
    ASSERT_TRUE(ApplyUntil(monitor, processes, [&] {
      return Find(processes, first.Pid()) != nullptr && Find(processes, second.Pid()) != nullptr;
    })) << "start notifications of both children did not arrive";

    const TrackedProcess* record = Find(processes, first.Pid());
    EXPECT_EQ(record->ppid, ::GetCurrentProcessId()) << "parent pid of the notification";
    EXPECT_NE(record->name.find(L"boottime_child.exe"), std::wstring::npos) << "the name is the image path";
    processes.Update();
    bool sampled = false;
    data.ForEachProcess([&](const ProcessSamples& p) { sampled |= p.pid == first.Pid() && p.samples.size() == 1; });
    EXPECT_TRUE(sampled) << "a followed child is sampled into the store";

    ASSERT_TRUE(first.End());
    ASSERT_TRUE(ApplyUntil(monitor, processes, [&] { return Find(processes, first.Pid()) == nullptr; }))
        << "the end notification did not remove the first child";
    EXPECT_NE(Find(processes, second.Pid()), nullptr) << "only the child that ended leaves";
    ASSERT_TRUE(second.End());
    ASSERT_TRUE(ApplyUntil(monitor, processes, [&] { return Find(processes, second.Pid()) == nullptr; }));

    monitor.Stop();
  }
  EXPECT_EQ(host.OutstandingCount(L"wmiprocessdp"), 0) << "the plug-in is given back";
  host.Shutdown();
}

class CountingHandler final : public IWMIProcessDPEvents {
 public:
  CountingHandler() : seen(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  void OnProcessStarted(const WMIProcessInfo* info) override {
    ++started;
    if (info->pid == watched) {
      name = info->name ? info->name : L"(null)";
      commandLine = info->commandLine ? info->commandLine : L"(null)";
      imagePath = info->imagePath ? info->imagePath : L"(null)";
      ppid = info->ppid;
      ::SetEvent(seen.get());
    }
  }
  void OnProcessEnded(const WMIProcessInfo*) override {}
  std::atomic<long> started{0};
  std::atomic<std::uint32_t> watched{0};
  ky::unique_handle seen;
  std::wstring name, commandLine, imagePath;
  std::uint32_t ppid = 0;
};

TEST(HostProcessTracking, HandlersAreRegisteredOnceAndANotificationCarriesEveryField) {
  host::HostConfig config;
  host::ComponentManager host(config);
  auto* plugin = testsupport::GetPlugin<IWMIProcessDP>(host, L"wmiprocessdp", lumera::ids::WmiProcessDPPlugin);
  ASSERT_NE(plugin, nullptr);
  CountingHandler handler;
  EXPECT_EQ(plugin->RegisterEventsHandler(nullptr), 13u);
  EXPECT_EQ(plugin->UnregisterEventsHandler(&handler), 1168u);
  ASSERT_EQ(plugin->RegisterEventsHandler(&handler), 0u);
  EXPECT_EQ(plugin->RegisterEventsHandler(&handler), 183u);
  {
    Child child;
    handler.watched = child.Pid();
    ASSERT_EQ(::WaitForSingleObject(handler.seen.get(), kDeadlineMs), WAIT_OBJECT_0) << "no start notification";
    EXPECT_EQ(plugin->UnregisterEventsHandler(&handler), 0u);
    EXPECT_EQ(handler.ppid, ::GetCurrentProcessId());
    EXPECT_EQ(handler.name, L"boottime_child.exe");
    EXPECT_NE(handler.imagePath.find(L"boottime_child.exe"), std::wstring::npos);
    EXPECT_NE(handler.commandLine.find(L"boottime_child_"), std::wstring::npos) << "the event name argument";
  }
  const long started = handler.started;
  {
    Child child;
    ASSERT_TRUE(child.End());
  }
  // Re-registering restarts the poller; then the plug-in goes down with a handler still in.
  ASSERT_EQ(plugin->RegisterEventsHandler(&handler), 0u);
  EXPECT_EQ(handler.started, started) << "called after unregistering";
  EXPECT_EQ(host.ReleasePlugin(L"wmiprocessdp"), 0u);
  host.Shutdown();
}

TEST(HostLoadUsage, TheWindowKeepsTheLastSecondsAndClampsToPercent) {
  host::LoadWindow window(3);
  EXPECT_TRUE(window.Empty());
  EXPECT_EQ(window.Figures().samples, 0u);
  for (double v : {90.0, 10.0, 20.0, 130.0}) window.Add(v);
  const lumera::LoadUsageFigures f = window.Figures();
  EXPECT_EQ(f.samples, 3u) << "the oldest figure left the window";
  EXPECT_DOUBLE_EQ(f.minimum, 10);
  EXPECT_DOUBLE_EQ(f.maximum, 100) << "clamped";
  EXPECT_DOUBLE_EQ(f.average, (10 + 20 + 100) / 3.0);
  EXPECT_EQ(f.windowSeconds, 3u);
  EXPECT_DOUBLE_EQ(window.Latest(), 100);
}

TEST(HostLoadUsage, BusyShareComesFromIdleAndTotalTimes) {
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 175, 1000, 1100), 25.0);
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 100, 1000, 1000), 0.0) << "no time passed";
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 300, 1000, 1100), 0.0) << "more idle than time: clamped";
  EXPECT_DOUBLE_EQ(host::BusyPercent(100, 50, 1000, 1100), 100.0) << "idle going back counts as none";
}

TEST(HostLoadUsage, DiskFiguresAreRealOrAnErrorAndTheMeasurementFollowsThem) {
  host::HostConfig config;
  host::ComponentManager host(config);
  auto* loadUsage = testsupport::GetPlugin<ILoadUsage>(host, L"LoadUsage", lumera::ids::LoadUsagePlugin);
  ASSERT_NE(loadUsage, nullptr);

  EXPECT_EQ(loadUsage->GetUsage(99, nullptr), 13u);
  lumera::LoadUsageFigures figures;
  EXPECT_EQ(loadUsage->GetUsage(99, &figures), 87u);

  lumera::LoadUsageFigures disk{-1, -1, -1, 7, 7};
  const std::uint32_t code = loadUsage->GetUsage(lumera::kLoadKindDisk, &disk);
  if (code != 0 && code != ERROR_NOT_READY) {  // a system without disk counters, as under Wine
    EXPECT_EQ(disk.minimum, -1) << "figures are left untouched on failure, never invented";
    EXPECT_EQ(disk.samples, 7u);
  }

  // The disk measurement meets the answer: without disk counters the figures are zeros.
  testing::FakeClock clock;
  testing::FakeCounters idle(&clock);
  idle.idleAt = [](std::uint32_t tick) { return std::uint64_t{tick} * 10000 * 4; };
  BootTimeDiskPerformance measurement(clock, idle);
  measurement.SetLoadUsage(loadUsage);
  ky::unique_handle never(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  measurement.Start(never.get());
  DiskSpeed speed;
  EXPECT_EQ(measurement.GetResult(&speed), kStatusAvailable) << "LoadUsage answered " << code;
  if (code != 0) {
    EXPECT_EQ(speed.average, 0.0);
  }

  EXPECT_EQ(host.ReleasePlugin(L"LoadUsage"), 0u);
  host.Shutdown();
}

}  // namespace
}  // namespace boottime
