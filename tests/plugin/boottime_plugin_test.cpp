// The boot-time plug-in driven like the host drives it (the host's real component manager,
// event queue and host plug-ins): the choice between measuring and reloading, what reaches
// listeners and the result files, and how promptly Stop ends every thread it started.
#include <gtest/gtest.h>

#include <windows.h>
#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "../boottime/fakes.h"
#include "boottime/boot_time_analyser.h"
#include "boottime/processes_monitor.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "lumera_dev/service_account.h"
#include "plugin/boottime_plugin.h"
#include "startup/central_messages.h"
#include "support/captured_log.h"
#include "support/scratch_folder.h"
#include "support/staged_console.h"
#include "support/test_thread.h"
#include "users/ky_users.h"
#include "users/user_logon.h"

namespace boottime {
namespace {

using testing::FakeClock;
using testing::FakeCounters;

constexpr DWORD kDeadlineMs = 20000;
constexpr std::int64_t kFakeSystemStart = 13'000'000'000'000;
constexpr char kImpactFile[] =
    R"({"processes":[{"ppid":"4","pid":"1200","name":"C:\\w\\workload.exe","counters":["100","2500","4096","3145728","0"]}]})";

// Real waits on the stop event, with a tick count that starts near zero so the monitor
// believes the machine has just started; from `virtualUntil` on, waits are real.
class HybridClock final : public IClock {
 public:
  explicit HybridClock(std::uint32_t virtualUntil) : virtualUntil_(virtualUntil) {}
  std::uint32_t TickCount() override {
    std::lock_guard hold(lock_);
    return tick_ + static_cast<std::uint32_t>(::GetTickCount() - started_);
  }
  std::uint64_t WallClock() override { return kFakeSystemStart + TickCount(); }
  DWORD WaitForStop(HANDLE stopEvent, DWORD milliseconds) override {
    {
      std::lock_guard hold(lock_);
      if (tick_ < virtualUntil_) {
        tick_ += milliseconds;
        return ::WaitForSingleObject(stopEvent, 0);
      }
    }
    return ::WaitForSingleObject(stopEvent, milliseconds);
  }

 private:
  std::mutex lock_;
  std::uint32_t tick_ = 0;
  std::uint32_t virtualUntil_;
  DWORD started_ = ::GetTickCount();
};

// The machine's own process counters, and a system that is always idle, so the disk is
// measured after its first second.
class IdleSystemCounters final : public IProcessCountersSource {
 public:
  bool GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user) override {
    return SystemCountersSource::Instance().GetProcessTimes(process, creation, exit, kernel, user);
  }
  bool GetProcessIoCounters(HANDLE process, IO_COUNTERS* counters) override {
    return SystemCountersSource::Instance().GetProcessIoCounters(process, counters);
  }
  bool GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user) override {
    const std::uint64_t now = std::uint64_t{::GetTickCount()} * 10000 * 4;
    *idle = *kernel = FILETIME{static_cast<DWORD>(now), static_cast<DWORD>(now >> 32)};
    *user = FILETIME{};
    return true;
  }
  std::uint32_t NumberOfProcessors() override { return 4; }
};

class Listener final : public IBootTimeEvents {
 public:
  void OnDataAnalysed(std::uint32_t status) override {
    std::lock_guard hold(lock_);
    statuses.push_back(status);
    ::SetEvent(heard_.get());
  }
  bool Heard() { return ::WaitForSingleObject(heard_.get(), kDeadlineMs) == WAIT_OBJECT_0; }
  std::vector<std::uint32_t> Statuses() {
    std::lock_guard hold(lock_);
    return statuses;
  }

 private:
  std::mutex lock_;
  std::vector<std::uint32_t> statuses;
  ky::unique_handle heard_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

std::size_t ThreadCount() {
  ky::unique_handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::size_t count = 0;
  for (BOOL more = ::Thread32First(snapshot.get(), &entry); more; more = ::Thread32Next(snapshot.get(), &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  return count;
}

// Stop must leave no thread behind a second later; within that second Wine may still be ending
// a helper thread of its own that served the run (its service-notification thread ends only
// when the service manager answers the closed registration).
bool ThreadsBackTo(std::size_t before) {
  return testsupport::WaitUntil([&] { return ThreadCount() <= before; }, 1000);
}

// What a leak check counts. Wine answers GetProcessHandleCount with 0, so there the handle
// table is probed instead; and Wine's RPC client keeps every connection it ever opened to the
// service manager (a pipe and an event each) for the life of the process, one more whenever
// two calls overlapped, so those connections are counted apart as the platform's own.
struct HandleCensus {
  DWORD handles = 0;
  DWORD serviceManagerPipes = 0;
};

bool IsServiceManagerPipe(HANDLE handle) {
  if (::GetFileType(handle) != FILE_TYPE_PIPE) return false;
  alignas(8) unsigned char buffer[1024] = {};
  ULONG length = 0;
  constexpr auto kObjectNameInformation = static_cast<OBJECT_INFORMATION_CLASS>(1);
  if (::NtQueryObject(handle, kObjectNameInformation, buffer, sizeof buffer - sizeof(wchar_t), &length) < 0) {
    return false;
  }
  const auto* name = reinterpret_cast<const UNICODE_STRING*>(buffer);
  if (name->Buffer == nullptr) return false;
  const std::wstring_view text(name->Buffer, name->Length / sizeof(wchar_t));
  constexpr std::wstring_view kPipe = L"\\svcctl";
  return text.size() >= kPipe.size() && text.substr(text.size() - kPipe.size()) == kPipe;
}

HandleCensus TakeHandleCensus() {
  HandleCensus census;
  if (::GetProcessHandleCount(::GetCurrentProcess(), &census.handles) && census.handles != 0) return census;
  census.handles = 0;
  constexpr std::uintptr_t kProbedValues = 0x40000;
  for (std::uintptr_t value = 4; value < kProbedValues; value += 4) {
    DWORD flags = 0;
    const auto handle = reinterpret_cast<HANDLE>(value);
    if (!::GetHandleInformation(handle, &flags)) continue;
    ++census.handles;
    if (IsServiceManagerPipe(handle)) ++census.serviceManagerPipes;
  }
  return census;
}

// A thread that has just ended may still be closing its handles, so one handle is let pass.
bool NoHandleOutlives(const HandleCensus& before, HandleCensus* after) {
  *after = TakeHandleCensus();
  const DWORD newConnections = after->serviceManagerPipes - std::min(after->serviceManagerPipes, before.serviceManagerPipes);
  return after->handles <= before.handles + 1 + 2 * newConnections;
}

bool Eventually(const std::function<bool()>& condition) { return testsupport::WaitUntil(condition, kDeadlineMs); }

// "RemoteDispatcherPipe" held by a central component that never answers: either its one
// instance accepts a client and never sends the welcome, or it is already taken by another
// client so that every new one finds it busy. Either way a client waits out its time-out.
class UnansweringCentral {
 public:
  enum class Kind { kSilent, kBusy };
  explicit UnansweringCentral(Kind kind) {
    const wchar_t* path = L"\\\\.\\pipe\\RemoteDispatcherPipe";
    pipe_.reset(::CreateNamedPipeW(path, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                   PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS, 1, 4096,
                                   4096, 0, nullptr));
    if (!pipe_) return;
    // The connect completes into this object when a client comes, so the OVERLAPPED lives
    // here, and the destructor waits for the cancelled connect before it goes.
    overlapped_.hEvent = connected_.get();
    if (!::ConnectNamedPipe(pipe_.get(), &overlapped_) && ::GetLastError() == ERROR_PIPE_CONNECTED) {
      ::SetEvent(connected_.get());
    }
    if (kind == Kind::kBusy) {
      occupant_.reset(::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    }
  }
  ~UnansweringCentral() {
    if (!pipe_) return;
    DWORD bytes = 0;
    if (::CancelIoEx(pipe_.get(), &overlapped_)) (void)::GetOverlappedResult(pipe_.get(), &overlapped_, &bytes, TRUE);
  }
  bool Ready(Kind kind) const { return pipe_.valid() && (kind == Kind::kSilent || occupant_.valid()); }

 private:
  ky::unique_handle connected_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  OVERLAPPED overlapped_{};
  ky::unique_file pipe_;
  ky::unique_file occupant_;
};

bool WriteFile(const std::wstring& path, const std::string& text) {
  testsupport::WriteFileBytes(path, text);
  return testsupport::ReadFileBytes(path) == text;
}

class PluginRun : public ::testing::Test {
 protected:
  void SetUp() override {
    config_.folders[L"2:common"] = scratch_.path();
    host_ = std::make_unique<host::ComponentManager>(config_);
  }
  void TearDown() override { host_->Shutdown(); }
  std::wstring Folder() const { return scratch_.path() + L"velora\\"; }
  std::wstring BootFile() const { return Folder() + BootTimeMonitor::kFileName; }
  std::wstring ImpactFile() const { return Folder() + kProcessImpactFileName; }
  std::wstring HistoryFile() const { return Folder() + kBootHistoryFileName; }
  bool StoreResults(std::int64_t systemStart, std::uint32_t bootTime) {
    ::CreateDirectoryW(Folder().c_str(), nullptr);
    return WriteFile(BootFile(), "{\"bootTime\":\"" + std::to_string(bootTime) + "\",\"systemStartTimestamp\":\"" +
                                     std::to_string(systemStart) + "\"}") &&
           WriteFile(ImpactFile(), kImpactFile);
  }
  std::size_t Logged(std::wstring_view text) const { return log_.count(text); }
  // Init, listen and Start, as the host does; `threadsBefore` is counted just before the Start.
  void Launch(CBootTimePlugin& plugin, Listener& listener, std::size_t* threadsBefore = nullptr) {
    ASSERT_EQ(plugin.Init(host_.get()), 0u);
    ASSERT_EQ(plugin.AddListener(&listener), 0u);
    if (threadsBefore != nullptr) *threadsBefore = ThreadCount();
    ASSERT_EQ(plugin.Start(), 0u);
  }
  void RunToTheEnd(CBootTimePlugin& plugin, Listener& listener) {
    Launch(plugin, listener);
    ASSERT_TRUE(listener.Heard());
  }
  // Stop returns within a second and leaves no thread of the run behind.
  static void StopPromptly(CBootTimePlugin& plugin, std::size_t threadsBefore) {
    const auto stopAt = std::chrono::steady_clock::now();
    EXPECT_EQ(plugin.Stop(), 0u);
    // Half the shortest wait a Stop that waited would sit out (the central's connect); ending
    // threads that stop at once has been seen to take 1.2 s on a loaded machine.
    EXPECT_LT(std::chrono::steady_clock::now() - stopAt, std::chrono::milliseconds(startup::kCentralTimeoutMs / 2))
        << "Stop waited";
    EXPECT_TRUE(ThreadsBackTo(threadsBefore)) << ThreadCount() << " threads against " << threadsBefore;
  }

  // Lets the host make the plug-ins and threads it keeps for its whole life, so that what
  // remains after a Stop is the module's.
  void WarmUpHost() {
    ASSERT_NO_FATAL_FAILURE(console_.Set(1));
    FakeClock clock;
    FakeCounters counters(&clock);
    {
      CBootTimePlugin plugin(clock, counters);
      Listener listener;
      RunToTheEnd(plugin, listener);
      if (HasFatalFailure()) return;
      EXPECT_EQ(plugin.Stop(), 0u);
      EXPECT_EQ(plugin.UnInit(), 0u);
    }
    BootTimeMonitor::ProcessesMonitor processes(host_.get());
    ASSERT_TRUE(processes.Start());
    processes.Stop();
    log_.clear();
  }

  testsupport::StagedConsole console_{L"ConsoleSession.plugin"};
  testsupport::CapturedLog log_;
  testsupport::ScratchFolder scratch_;
  host::HostConfig config_;
  std::unique_ptr<host::ComponentManager> host_;
  CUserLogon tracker_;
  CUserLogon::ScopedOverride override_{tracker_};
  Listener listener_;
};

TEST_F(PluginRun, FirstStartWithAUserLoggedOnMeasuresNothingAndTellsTwo) {
  WarmUpHost();
  ASSERT_NO_FATAL_FAILURE(console_.Set(1));
  FakeClock clock;
  FakeCounters counters(&clock);
  CBootTimePlugin plugin(clock, counters);
  ASSERT_EQ(plugin.Init(host_.get()), 0u);
  EXPECT_EQ(plugin.SettingsFolder(), Folder());
  ASSERT_EQ(plugin.AddListener(&listener_), 0u);
  EXPECT_EQ(plugin.AddListener(&listener_), 183u);
  std::uint32_t ms = 0;
  EXPECT_EQ(plugin.GetBootTime(&ms), 1u) << "nothing is known before the first run ends";

  const std::size_t threadsBefore = ThreadCount();
  ASSERT_EQ(plugin.Start(), 0u);
  ASSERT_TRUE(listener_.Heard());
  EXPECT_EQ(listener_.Statuses(), std::vector<std::uint32_t>{2});
  EXPECT_EQ(Logged(L"no boot time (user logged)"), 1u);
  EXPECT_EQ(Logged(L"must start processes monitor (user not logged)"), 0u);
  EXPECT_EQ(plugin.GetBootTime(&ms), 2u);
  BootCounters total;
  EXPECT_EQ(plugin.GetTotalBootImpact(&total), 2u);

  // The report thread was started by the run; Stop must end and join it.
  StopPromptly(plugin, threadsBefore);
  EXPECT_EQ(log_.entriesFor(L"boottime::CBootTimePlugin::SendReportToCentral").empty(), false)
      << "the run started a report";
  EXPECT_FALSE(testsupport::Exists(BootFile()));
  EXPECT_FALSE(testsupport::Exists(ImpactFile()));
  EXPECT_EQ(plugin.UnInit(), 0u);
}

// The report's connect to the central component may wait 5 s; a Stop in that wait ends it.
TEST_F(PluginRun, StopDuringTheReportEndsTheCentralsConnectAtOnceAndLeavesNoThread) {
  WarmUpHost();
  // This process stands for LocalSystem, so the report's client gets past its check of the
  // central's account and waits for a welcome that never comes.
  const lumera::dev::LocalSystemStandIn serviceAccount;
  for (const auto kind : {UnansweringCentral::Kind::kSilent, UnansweringCentral::Kind::kBusy}) {
    SCOPED_TRACE(kind == UnansweringCentral::Kind::kSilent ? "central accepts and never welcomes" : "central busy");
    UnansweringCentral central(kind);
    ASSERT_TRUE(central.Ready(kind));
    ASSERT_NO_FATAL_FAILURE(console_.Set(1));
    log_.clear();
    FakeClock clock;
    FakeCounters counters(&clock);
    CBootTimePlugin plugin(clock, counters);
    Listener listener;
    std::size_t threadsBefore = 0;
    ASSERT_NO_FATAL_FAILURE(Launch(plugin, listener, &threadsBefore));
    ASSERT_TRUE(listener.Heard());
    ASSERT_TRUE(Eventually([&] { return log_.contains(L"-> CBaseStartupManager::Init"); }))
        << "the report did not start connecting";
    StopPromptly(plugin, threadsBefore);
    EXPECT_TRUE(log_.contains(L"Could not create a communication client.")) << "the connect was not ended by Stop";
    EXPECT_FALSE(log_.contains(L"Report JSON:")) << "a stopped report was sent";
    EXPECT_EQ(plugin.UnInit(), 0u);
  }
}

TEST_F(PluginRun, AStoredStartWithinTwoSecondsReloadsAndExactlyTwoSecondsMeasures) {
  ASSERT_NO_FATAL_FAILURE(console_.Set(0));
  struct Case {
    std::int64_t difference;
    bool reloads;
    bool impactFile;  // without it the analyser has no result, and nothing is written back
  };
  for (const Case c : {Case{1999, true, true}, Case{-1999, true, true}, Case{2000, false, true},
                       Case{1999, true, false}}) {
    SCOPED_TRACE(::testing::Message() << c.difference << (c.impactFile ? "" : " without the impact file"));
    log_.clear();
    ASSERT_TRUE(StoreResults(kFakeSystemStart + c.difference, 4321));
    if (!c.impactFile) {
      ASSERT_TRUE(::DeleteFileW(ImpactFile().c_str()));
    }
    FakeClock clock;
    clock.stopAtWait = 3;  // a measurement gives up early and falls back to the files
    FakeCounters counters(&clock);
    CBootTimePlugin plugin(clock, counters);
    Listener listener;
    ASSERT_NO_FATAL_FAILURE(RunToTheEnd(plugin, listener));
    EXPECT_EQ(Logged(L"load data from file"), c.reloads ? 1u : 0u);
    EXPECT_EQ(Logged(L"must start processes monitor (diff system start time)"), c.reloads ? 0u : 1u);
    EXPECT_EQ(Logged(L"Monitor did not detect boot time; Trying to load last boot time data"), c.reloads ? 0u : 1u);
    const std::uint32_t status = c.impactFile ? 0u : 2u;
    EXPECT_EQ(listener.Statuses(), std::vector<std::uint32_t>{status});
    std::uint32_t ms = 0;
    EXPECT_EQ(plugin.GetBootTime(&ms), status);
    ky::List<ProcessImpact> impacts;
    EXPECT_EQ(plugin.GetBootImpact(&impacts, nullptr), status);
    EXPECT_EQ(impacts.Count(), c.impactFile ? 1u : 0u);
    BootCounters total;
    EXPECT_EQ(plugin.GetTotalBootImpact(&total), status);
    EXPECT_EQ(plugin.Stop(), 0u);
    EXPECT_EQ(plugin.UnInit(), 0u);
    const std::string bootFile = testsupport::ReadFileBytes(BootFile());
    EXPECT_NE(bootFile.find("\"4321\""), std::string::npos);
    // Written back with the current system start only when both results are there.
    const std::int64_t start = c.impactFile ? kFakeSystemStart : kFakeSystemStart + c.difference;
    EXPECT_NE(bootFile.find(std::to_string(start)), std::string::npos) << bootFile;
    EXPECT_FALSE(testsupport::Exists(HistoryFile())) << "a reload or a failed measurement added a boot to the history";
    if (!c.impactFile) continue;
    ASSERT_EQ(impacts.Count(), 1u);
    EXPECT_EQ(impacts.Items()[0].write, 3145728u);
    EXPECT_EQ(total.user, 2500u);
    EXPECT_NE(testsupport::ReadFileBytes(ImpactFile()).find("\"3145728\""), std::string::npos);
  }
}

TEST_F(PluginRun, StopDuringMonitoringEndsAtOnceWritesNothingAndASecondStartReloadsWithoutReport) {
  WarmUpHost();
  ASSERT_NO_FATAL_FAILURE(console_.Set(0));
  ASSERT_TRUE(StoreResults(kFakeSystemStart - 60000, 999));  // an earlier boot's results
  HybridClock clock(0);
  CBootTimePlugin plugin(clock);
  std::size_t threadsBefore = 0;
  ASSERT_NO_FATAL_FAILURE(Launch(plugin, listener_, &threadsBefore));
  ASSERT_TRUE(Eventually([&] { return Logged(L"User logged = FALSE") > 0; })) << "the monitor did not start";

  std::uint32_t ms = 0;
  BootCounters total;
  ky::List<ProcessImpact> impacts;
  DiskSpeed disk;
  EXPECT_EQ(plugin.GetBootTime(&ms), 1u);
  EXPECT_EQ(plugin.GetTotalBootImpact(&total), 1u);
  EXPECT_EQ(plugin.GetBootImpact(&impacts, nullptr), 1u);
  EXPECT_EQ(plugin.GetDiskSpeed(&disk), 1u);

  StopPromptly(plugin, threadsBefore);
  EXPECT_EQ(listener_.Statuses(), std::vector<std::uint32_t>{2});
  EXPECT_EQ(plugin.GetBootTime(&ms), 2u);
  EXPECT_EQ(Logged(L"Loaded boot time 999"), 0u) << "a stopped run reloaded an earlier boot's files";
  EXPECT_NE(testsupport::ReadFileBytes(BootFile()).find(std::to_string(kFakeSystemStart - 60000)), std::string::npos)
      << "a stopped run wrote the results";
  EXPECT_EQ(testsupport::ReadFileBytes(ImpactFile()), kImpactFile);
  EXPECT_TRUE(log_.entriesFor(L"boottime::CBootTimePlugin::SendReportToCentral").empty()) << "a stopped run reports";

  // The stop event stays set: the files of this boot still load, and nothing is reported.
  ASSERT_TRUE(StoreResults(kFakeSystemStart, 777));
  ASSERT_EQ(plugin.Start(), 0u);
  ASSERT_TRUE(Eventually([&] { return listener_.Statuses().size() == 2; }));
  EXPECT_EQ(listener_.Statuses()[1], 0u);
  EXPECT_EQ(plugin.GetBootTime(&ms), 0u);
  EXPECT_EQ(ms, 777u);
  EXPECT_EQ(plugin.Stop(), 0u);
  EXPECT_TRUE(log_.entriesFor(L"boottime::CBootTimePlugin::SendReportToCentral").empty());
  EXPECT_EQ(plugin.UnInit(), 0u);
  EXPECT_TRUE(ThreadsBackTo(threadsBefore)) << ThreadCount() << " threads against " << threadsBefore;
}

TEST_F(PluginRun, AMeasuredBootAddsOneRecordToTheHistoryAndTheReloadOfThatBootNone) {
  ASSERT_NO_FATAL_FAILURE(console_.Set(1));
  ASSERT_TRUE(StoreResults(kFakeSystemStart - 60000, 999));  // an earlier boot's results
  for (const bool measures : {true, false}) {
    SCOPED_TRACE(measures ? "measured boot" : "same boot again");
    HybridClock clock(BootTimeMonitor::kAfterLogonMs + 1000);
    IdleSystemCounters counters;
    CBootTimePlugin plugin(clock, counters);
    Listener listener;
    ASSERT_NO_FATAL_FAILURE(RunToTheEnd(plugin, listener));
    ASSERT_EQ(listener.Statuses(), std::vector<std::uint32_t>{0});
    EXPECT_EQ(Logged(L"load data from file"), measures ? 0u : 1u);
    ky::List<std::string> lines;
    ASSERT_EQ(plugin.GetBootHistory(0, &lines), 0u);
    ASSERT_EQ(lines.Count(), 1u) << "one record for the measured boot, none for its reload";
    std::string error;
    const std::optional<BootRecord> record = DecodeBootRecord(lines.Items()[0], error);
    ASSERT_TRUE(record) << error;
    std::uint32_t ms = 0;
    EXPECT_EQ(plugin.GetBootTime(&ms), 0u);
    EXPECT_EQ(record->bootTime, ms);
    EXPECT_EQ(record->systemStart, kFakeSystemStart);
    EXPECT_TRUE(record->end == BootEnd::kQuietAfterLogon || record->end == BootEnd::kLogonLimit)
        << BootEndName(record->end) << ": a user was logged on and no boot event came";
    EXPECT_NE(record->processes, 0u);
    EXPECT_FALSE(record->top.empty());
    EXPECT_EQ(plugin.Stop(), 0u);
    EXPECT_EQ(plugin.UnInit(), 0u);
    log_.clear();
  }
}

TEST_F(PluginRun, StopDuringTheDiskMeasurementEndsAtOnceWithRunStatusTwo) {
  WarmUpHost();
  ASSERT_NO_FATAL_FAILURE(console_.Set(1));
  ASSERT_TRUE(StoreResults(kFakeSystemStart - 60000, 999));  // an earlier boot's results
  // The monitor's minute after logon passes in virtual time; the disk's waits are real.
  HybridClock clock(BootTimeMonitor::kAfterLogonMs + 1000);
  CBootTimePlugin plugin(clock);
  std::size_t threadsBefore = 0;
  ASSERT_NO_FATAL_FAILURE(Launch(plugin, listener_, &threadsBefore));
  ASSERT_TRUE(Eventually([&] { return log_.contains(L"BOOT DATA:") || listener_.Statuses().size() > 0; }));
  ASSERT_TRUE(listener_.Statuses().empty()) << "the run ended before its disk measurement";
  StopPromptly(plugin, threadsBefore);
  EXPECT_EQ(listener_.Statuses(), std::vector<std::uint32_t>{2});
  // The boot itself was measured, so its results replace the earlier boot's.
  EXPECT_NE(testsupport::ReadFileBytes(ImpactFile()), std::string(kImpactFile));
  std::uint32_t ms = 0;
  EXPECT_EQ(plugin.GetBootTime(&ms), 2u) << "a stopped run has no results to give";
  EXPECT_FALSE(testsupport::Exists(HistoryFile())) << "a stopped measurement added a boot to the history";
  EXPECT_EQ(plugin.UnInit(), 0u);
}

TEST_F(PluginRun, RunsStoppedWhileMonitoringLeaveNoHandleOrThreadBehind) {
  WarmUpHost();
  ASSERT_NO_FATAL_FAILURE(console_.Set(0));
  // Wine opens a few handles of its own on first use, so leaks are counted over several runs.
  constexpr int kRuns = 4;
  HandleCensus before;
  std::size_t threadsBefore = 0;
  for (int run = 0; run < kRuns; ++run) {
    if (run == 1) {
      before = TakeHandleCensus();
      threadsBefore = ThreadCount();
    }
    HybridClock clock(0);
    CBootTimePlugin plugin(clock);
    ASSERT_EQ(plugin.Init(host_.get()), 0u);
    ASSERT_EQ(plugin.Start(), 0u);
    log_.clear();
    ASSERT_TRUE(Eventually([&] { return Logged(L"User logged = FALSE") > 0; }));
    EXPECT_EQ(plugin.Stop(), 0u);
    EXPECT_EQ(plugin.UnInit(), 0u);
  }
  HandleCensus after;
  EXPECT_TRUE(Eventually([&] { return NoHandleOutlives(before, &after); }))
      << "handles outlive the plug-in's runs: " << after.handles << " against " << before.handles
      << " (service-manager connections " << after.serviceManagerPipes << " against "
      << before.serviceManagerPipes << ")";
  EXPECT_TRUE(ThreadsBackTo(threadsBefore)) << ThreadCount() << " threads against " << threadsBefore;
}

}  // namespace
}  // namespace boottime
