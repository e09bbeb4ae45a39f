// The messages the boot-time data path writes where it skips, drops or measures something.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "boottime/boot_time_analyser.h"
#include "boottime/boot_time_disk_performance.h"
#include "boottime/process_utils.h"
#include "boottime/processes.h"
#include "boottime/processes_monitor.h"
#include "fakes.h"
#include "support/captured_log.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

using testsupport::CapturedLog;

class LogMessagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(log.available()) << "the capturing logcore.dll is not beside the test";
    log.clear();
  }
  // Whether a message under `function` has exactly `text`.
  bool Logged(std::wstring_view function, std::wstring_view text) const {
    const auto entries = log.entriesFor(function);
    return std::any_of(entries.begin(), entries.end(), [&](const testsupport::LogEntry& e) { return e.text == text; });
  }
  CapturedLog log;
};

TEST_F(LogMessagesTest, ASampleForAProcessNeverEnteredIsSkippedWithItsMessage) {
  BootTimeData data;
  data.AddSample(42, Sample{1000, 1, 2, 3, 4, 5});
  EXPECT_TRUE(Logged(L"boottime::BootTimeData::AddSample",
                     L"Can't find process to add data for; Most likely AddProcess was not called for it; skipping"));
  EXPECT_TRUE(data.Empty());
}

TEST_F(LogMessagesTest, AnElementWithoutANameIsSkippedWithTheExactMessage) {
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / (L"boottime_log_" + std::to_wstring(::GetCurrentProcessId()));
  std::filesystem::create_directories(folder);
  const std::filesystem::path file = folder / kProcessImpactFileName;
  {
    std::ofstream out(file, std::ios::binary);
    out << R"({"processes":[{"ppid":"1","pid":"2","counters":["1","2","3","4","5"]},)"
        << R"({"ppid":"1","pid":"x3","name":"n","counters":["1","2","3","4","5"]},)"
        << R"(7,{"ppid":"1","pid":"4","name":"ok","counters":["1","2","3","4","5"]}]})";
  }
  BootTimeAnalyser analyser;
  EXPECT_TRUE(analyser.LoadLastBootProcessImpactFromDisk(file.wstring()));
  EXPECT_TRUE(Logged(L"boottime::BootTimeAnalyser::ReadProcessImpactFromJsonValue",
                     L"[JSON] Not all keys present. skipping ...\n"));
  EXPECT_TRUE(Logged(L"boottime::BootTimeAnalyser::LoadLastBootProcessImpactFromDisk",
                     L"Skipping json entry. Not an object"));
  EXPECT_TRUE(Logged(L"boottime::BootTimeAnalyser::LoadLastBootProcessImpactFromDisk", L"Loading data from json"));
  EXPECT_EQ(log.count(L"invalid stol argument"), 1u) << "the non-numeric pid skips only its element";
  EXPECT_EQ(analyser.Impacts().size(), 1u);

  log.clear();
  std::filesystem::remove_all(folder);
  EXPECT_FALSE(analyser.LoadLastBootProcessImpactFromDisk(file.wstring()));
  EXPECT_TRUE(Logged(L"boottime::BootTimeAnalyser::LoadLastBootProcessImpactFromDisk",
                     L"Can't find last boot process impact data"));
  EXPECT_FALSE(analyser.StoreProcessImpactOnDisk((folder / L"no" / L"such.json").wstring()));
  EXPECT_TRUE(Logged(L"boottime::BootTimeAnalyser::StoreProcessImpactOnDisk", L"Failed to save boot impact in JSON"));
}

TEST_F(LogMessagesTest, TheDiskMeasurementLogsItsFiguresAndStatus) {
  class Answer final : public ILoadUsage {
   public:
    void* GetInterface(const GUID&) override { return this; }
    std::uint32_t Init(IServMain*) override { return 0; }
    std::uint32_t UnInit() override { return 0; }
    std::uint32_t Start() override { return 0; }
    std::uint32_t Stop() override { return 0; }
    std::uint32_t GetCurrentUsage(std::uint32_t, double*) override { return 0; }
    std::uint32_t GetUsage(std::uint32_t, lumera::LoadUsageFigures* f) override {
      *f = lumera::LoadUsageFigures{1.5, 9.25, 4, 60, 60};
      return 0;
    }
  } answer;
  testing::FakeClock clock;
  testing::FakeCounters counters(&clock);
  counters.systemTimesFail = true;
  BootTimeDiskPerformance disk(clock, counters);
  disk.SetLoadUsage(&answer);
  disk.Start(nullptr);
  EXPECT_TRUE(Logged(L"boottime::BootTimeDiskPerformance::MeasureDiskPerformance",
                     L"Disk speed determined [min, max, avg]=[1.500000, 9.250000, 4.000000]; status = 0"));
  EXPECT_TRUE(Logged(L"boottime::BootTimeDiskPerformance::MeasureDiskPerformance",
                     L"GetSystemTimes failed with error code 5"));
}

TEST_F(LogMessagesTest, ProcessTrackingNamesWhatItAddsRemovesAndDrops) {
  BootTimeData data;
  BootTimeMonitor::Processes processes(&data);
  EXPECT_TRUE(processes.Add(0x7FFFFFF1u));
  processes.Update();
  EXPECT_TRUE(Logged(L"boottime::BootTimeMonitor::Processes::Add", L"ADD "));
  EXPECT_TRUE(Logged(L"boottime::utils::GetProcessName", L"QueryFullProcessImageName failed with error code : 6"));
  EXPECT_TRUE(Logged(L"boottime::BootTimeMonitor::Processes::GetProcessCounters", L"GetProcessTimes failed 0x6"));

  EXPECT_TRUE(processes.Add(ProcessEvent{1, ::GetCurrentProcessId(), L"C:\\me.exe"}));
  EXPECT_TRUE(processes.Rem(ProcessEvent{1, ::GetCurrentProcessId(), L"C:\\me.exe"}));
  EXPECT_TRUE(Logged(L"boottime::BootTimeMonitor::Processes::Add", L"Add C:\\me.exe"));
  EXPECT_TRUE(Logged(L"boottime::BootTimeMonitor::Processes::Rem", L"REM C:\\me.exe"));

  const std::vector<std::uint32_t> pids = utils::GetAllProcessesPids();
  EXPECT_TRUE(std::is_sorted(pids.begin(), pids.end()));
  EXPECT_NE(std::find(pids.begin(), pids.end(), ::GetCurrentProcessId()), pids.end());
}

TEST_F(LogMessagesTest, AHostWithoutTheProcessPlugInLeavesTheMonitorWithoutNotifications) {
  struct NoPlugins final : IServMain, IPlgComponentManager {
    const wchar_t* GetHostName() override { return L"test"; }
    IPlgComponentManager* GetComponentManager() override { return this; }
    IEventQueue* GetEventQueue() override { return nullptr; }
    std::uint32_t GetPlugin(const wchar_t*, const GUID&, void** out) override {
      *out = nullptr;
      return ERROR_NOT_FOUND;
    }
    std::uint32_t ReleasePlugin(const wchar_t*) override { return ERROR_NOT_FOUND; }
  } host;
  BootTimeMonitor::ProcessesMonitor monitor(&host);
  EXPECT_FALSE(monitor.Start());
  EXPECT_TRUE(Logged(L"boottime::WmiProcessDP::Init", L"GetPlugin wmiprocessdp failed"));
  EXPECT_TRUE(Logged(L"boottime::BootTimeMonitor::ProcessesMonitor::Start", L"IProcessDp Init failed"));
}

}  // namespace
}  // namespace boottime
