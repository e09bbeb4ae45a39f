// Judges a staged boot after the module measured it (run by staged_boot_test.sh, inside the
// staged session): the boot ends when workload.exe stops being busy, workload.exe leads the
// boot impact with the processor time it burned and the bytes it wrote, and the report
// reached the central stand-in. STAGED_OUT names the folder of the staged boot.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "picojson.h"

namespace {

constexpr std::int64_t kBootTimeToleranceMs = 2000;
constexpr double kCpuTolerance = 0.25;

std::filesystem::path Out() {
  wchar_t folder[MAX_PATH] = {};
  const DWORD chars = ::GetEnvironmentVariableW(L"STAGED_OUT", folder, MAX_PATH);
  return chars > 0 && chars < MAX_PATH ? std::filesystem::path(folder) : std::filesystem::path();
}

picojson::value ReadJson(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  picojson::value value;
  const std::string error = picojson::parse(value, text.str());
  EXPECT_TRUE(file && error.empty()) << path.string() << ": " << (error.empty() ? "cannot be read" : error);
  return value;
}

std::int64_t Number(const picojson::value& value) {
  if (value.is<double>()) return static_cast<std::int64_t>(value.get<double>());
  return value.is<std::string>() ? std::stoll(value.get<std::string>()) : -1;
}

class StagedBoot : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(Out().empty()) << "STAGED_OUT is not set: run through staged_boot_test.sh";
    workload_ = ReadJson(Out() / "workload.json");
    ASSERT_TRUE(workload_.is<picojson::object>()) << "workload.exe left no report";
  }
  std::int64_t Workload(const char* key) const { return Number(workload_.get(key)); }

  picojson::value workload_;
};

TEST_F(StagedBoot, TheBootEndsWhenTheWorkloadStopsBeingBusy) {
  const picojson::value info = ReadJson(Out() / "data" / "velora" / "last_boot_time_information.json");
  ASSERT_TRUE(info.is<picojson::object>());
  const std::int64_t bootTime = Number(info.get("bootTime"));
  const std::int64_t busyEnd = Workload("busyEndTick");
  EXPECT_NEAR(static_cast<double>(bootTime), static_cast<double>(busyEnd), kBootTimeToleranceMs)
      << "boot time " << bootTime << " ms, workload busy until " << busyEnd << " ms since the machine started";
  EXPECT_GT(Number(info.get("systemStartTimestamp")), 0);
}

TEST_F(StagedBoot, TheWorkloadLeadsTheImpactWithWhatItBurnedAndWrote) {
  const picojson::value impact = ReadJson(Out() / "data" / "velora" / "last_boot_time_process_impact.json");
  ASSERT_TRUE(impact.get("processes").is<picojson::array>());
  std::string leader;
  std::int64_t leaderCpu = -1, leaderWritten = 0;
  for (const picojson::value& process : impact.get("processes").get<picojson::array>()) {
    const picojson::value& counters = process.get("counters");
    ASSERT_TRUE(counters.is<picojson::array>() && counters.get<picojson::array>().size() == 5);
    const std::int64_t cpu = Number(counters.get(0)) + Number(counters.get(1));
    if (cpu > leaderCpu) {
      leaderCpu = cpu;
      leaderWritten = Number(counters.get(3));
      leader = process.get("name").to_str();
    }
  }
  EXPECT_TRUE(leader.size() > 13 && leader.substr(leader.size() - 13) == "\\workload.exe")
      << "the heaviest process of the boot is " << leader;
  const double burned = static_cast<double>(Workload("cpuMs"));
  EXPECT_NEAR(static_cast<double>(leaderCpu), burned, burned * kCpuTolerance)
      << leader << " measured with " << leaderCpu << " ms of CPU";
  EXPECT_GE(leaderWritten, Workload("writtenBytes")) << "bytes written by " << leader;
}

// The light copy in the Startup folder starts while the logon is busy; it must be followed by its
// image, not as a process without a name.
TEST_F(StagedBoot, TheStartupFolderProgramIsFollowedByItsName) {
  const picojson::value impact = ReadJson(Out() / "data" / "velora" / "last_boot_time_process_impact.json");
  ASSERT_TRUE(impact.get("processes").is<picojson::array>());
  bool lightFound = false;
  for (const picojson::value& process : impact.get("processes").get<picojson::array>()) {
    const std::string name = process.get("name").to_str();
    lightFound |= name.size() > 19 && name.substr(name.size() - 19) == "\\workload-light.exe";
  }
  EXPECT_TRUE(lightFound) << "workload-light.exe of the Startup folder is not in the impact list";
}

TEST_F(StagedBoot, TheReportReachesTheCentralComponent) {
  std::ifstream received(Out() / "central.jsonl", std::ios::binary);
  bool workloadReported = false;
  for (std::string line; std::getline(received, line);) {
    picojson::value report;
    ASSERT_EQ(picojson::parse(report, line), "");
    if (!report.is<picojson::object>() || !report.get("processes").is<picojson::array>()) continue;
    for (const picojson::value& process : report.get("processes").get<picojson::array>()) {
      const std::string name = process.get("name").to_str();
      workloadReported |= name.size() > 13 && name.substr(name.size() - 13) == "\\workload.exe";
    }
  }
  EXPECT_TRUE(workloadReported) << "no process-impact report naming workload.exe reached lumeracentral.exe";
}

}  // namespace
