// Judges a staged boot after the module measured it (run by staged_boot_test.sh, inside the
// staged session): the staged user's logon started workload.exe, the boot ends when
// workload.exe stops being busy, workload.exe leads the boot impact with the processor time it
// burned and the bytes it wrote, the reports reached the central stand-in, and the startup
// report holds the staged user's apps and none of the decoys of the service's account; the two
// entries the user delayed start after the boot's end. STAGED_OUT names the folder of the
// staged boot, STAGED_USER and STAGED_USER_SID its user, STAGED_DELAYED_RUN and
// STAGED_DELAYED_SHORTCUT the delayed entries.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "picojson.h"
#include "stageduser/decoys.h"

namespace {

constexpr std::int64_t kBootTimeToleranceMs = 2000;
constexpr double kCpuTolerance = 0.25;
constexpr char kWorkloadDescription[] = "Lumera boot workload";  // workload.exe's version resource
constexpr char kDecoy[] = "Decoy";
constexpr char kRunKeySuffix[] = "\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kApprovedKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\";
constexpr wchar_t kTaskKey[] =
    L"Software\\Classes\\Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData\\";

std::string Environment(const char* name) {
  char value[MAX_PATH] = {};
  const DWORD chars = ::GetEnvironmentVariableA(name, value, MAX_PATH);
  return chars > 0 && chars < MAX_PATH ? std::string(value, chars) : std::string();
}

std::filesystem::path Out() {
  const std::string folder = Environment("STAGED_OUT");
  return folder.empty() ? std::filesystem::path() : std::filesystem::path(folder);
}

std::filesystem::path Velora() { return Out() / "data" / "velora"; }

// Whether a started program's USERPROFILE is the staged user's (C:\users\<name> under Wine).
bool IsStagedUsersProfile(const std::string& profile) {
  const std::string suffix = "\\" + Environment("STAGED_USER");
  return suffix.size() > 1 && profile.size() > suffix.size() &&
         _stricmp(profile.c_str() + profile.size() - suffix.size(), suffix.c_str()) == 0;
}

std::vector<std::string> Lines(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream in(line);
  for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
  return fields;
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

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
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

// stagedlogon.exe logged the staged user on and started the workload from that user's Run key
// (the pid it started is the one the workload reported) and the light copy from its Startup folder.
TEST_F(StagedBoot, TheStagedUsersLogonStartedTheWorkload) {
  const std::string user = Environment("STAGED_USER");
  const std::string sid = Environment("STAGED_USER_SID");
  ASSERT_FALSE(user.empty() || sid.empty()) << "STAGED_USER and STAGED_USER_SID are not set";
  bool loggedOn = false;
  std::string runPid, lightPid, runSource;
  for (const std::string& line : Lines(Out() / "stagedlogon.txt")) {
    EXPECT_EQ(line.find(kDecoy), std::string::npos) << "the staged user's logon touched a decoy: " << line;
    const std::vector<std::string> fields = Fields(line);
    if (fields.size() < 3) continue;
    loggedOn |= fields[0] == "user" && fields[1] == user && fields[2] == sid;
    if (fields[0] != "started" || fields.size() < 4) continue;
    if (fields[1] == "LumeraWorkload") {
      runPid = fields[2];
      runSource = fields[3];
    }
    if (fields[1] == "workload-light.exe") lightPid = fields[2];
  }
  EXPECT_TRUE(loggedOn) << "stagedlogon.txt names no logon of " << user << " (" << sid << ")";
  EXPECT_EQ(runPid, std::to_string(Workload("pid"))) << "the workload's pid against the one stagedlogon started";
  EXPECT_TRUE(IsStagedUsersProfile(workload_.get("userProfile").to_str()))
      << "the workload started in the environment of " << workload_.get("userProfile").to_str();
  EXPECT_EQ(runSource, "HKEY_USERS\\" + sid + kRunKeySuffix) << "where stagedlogon found the workload";
  EXPECT_FALSE(lightPid.empty()) << "stagedlogon did not start workload-light.exe of the user's Startup folder";
}

// Until the staged logon nobody is at the console: the users library says so (it never takes
// the host's own account for the user), and the module monitors the boot from its start.
TEST_F(StagedBoot, NobodyIsLoggedOnUntilTheStagedLogonSoTheBootIsMonitored) {
  bool noUser = false, monitored = false, loggedOnFirst = false;
  for (const std::string& line : Lines(Out() / "logs" / "lumera.log")) {
    loggedOnFirst |= !monitored && line.find("login time = ") != std::string::npos;
    noUser |= line.find("CUserLogon::IsUserLogged: SrvGetCurrentUserInfoAdvanced failed") != std::string::npos;
    monitored |= line.find("must start processes monitor (user not logged)") != std::string::npos;
  }
  EXPECT_TRUE(noUser) << "kyusers.dll answered a user before the logon";
  EXPECT_TRUE(monitored) << "the module did not start the monitor for a boot nobody had logged on to";
  EXPECT_FALSE(loggedOnFirst) << "a logon was seen before the monitor started";
}

// The Run entry and the Startup-folder shortcut the user delayed through startupctl before the
// boot: the logon left both out, and StartLauncher.exe /delayed started them after the boot's end,
// as the staged user, so the boot neither waited for nor counted them (their gap is
// DelayedStart's to check). Each start time is the program's own: the shell gives the launcher no
// process of a shortcut under Wine.
TEST_F(StagedBoot, TheDelayedEntriesStartAfterTheBootEndAsTheUser) {
  const std::int64_t bootTime = Number(ReadJson(Velora() / "last_boot_time_information.json").get("bootTime"));
  const picojson::value impact = ReadJson(Velora() / "last_boot_time_process_impact.json");
  ASSERT_TRUE(impact.get("processes").is<picojson::array>());
  for (const char* report : {"delayed-run.json", "delayed-shortcut.json"}) {
    const picojson::value delayed = ReadJson(Out() / report);
    if (!delayed.is<picojson::object>()) {
      ADD_FAILURE() << "the delayed entry of " << report << " did not start";
      continue;
    }
    const std::int64_t start = Number(delayed.get("busyStartTick"));
    EXPECT_GT(start, bootTime) << report << ": started at " << start << " ms, the boot ended at " << bootTime << " ms";
    EXPECT_TRUE(IsStagedUsersProfile(delayed.get("userProfile").to_str()))
        << report << ": started in the environment of " << delayed.get("userProfile").to_str();
    for (const picojson::value& process : impact.get("processes").get<picojson::array>()) {
      EXPECT_NE(Number(process.get("pid")), Number(delayed.get("pid"))) << report << ": counted in the boot's impact";
    }
  }
  // The boot's history record marks both delayed, apart from the enabled and disabled ones, and
  // leaves out the launcher's own entry as the report does.
  const std::vector<std::string> history = Lines(Velora() / "boot_history.jsonl");
  ASSERT_EQ(history.size(), 1u) << "one record for the one measured boot";
  picojson::value record;
  ASSERT_TRUE(picojson::parse(record, history[0]).empty() && record.get("entries").is<picojson::array>()) << history[0];
  std::map<std::string, std::string> states;
  for (const picojson::value& entry : record.get("entries").get<picojson::array>()) {
    states[entry.get("name").to_str()] = entry.get("state").to_str();
  }
  EXPECT_EQ(states[Environment("STAGED_DELAYED_RUN")], "delayed") << history[0];
  EXPECT_EQ(states[Environment("STAGED_DELAYED_SHORTCUT")], "delayed") << history[0];
  EXPECT_EQ(states["LumeraWorkload"], "enabled") << history[0];
  EXPECT_EQ(states.count("LumeraDelayedStart"), 0u) << "the product's own launcher is listed: " << history[0];
  for (const std::string& line : Lines(Out() / "stagedlogon.txt")) {
    const std::vector<std::string> fields = Fields(line);
    const bool delayedEntry = fields.size() > 1 && (fields[1] == Environment("STAGED_DELAYED_RUN") ||
                                                    fields[1] == Environment("STAGED_DELAYED_SHORTCUT"));
    EXPECT_FALSE(delayedEntry && fields[0] == "started") << "the logon started a delayed entry: " << line;
  }
}

TEST_F(StagedBoot, TheBootEndsWhenTheWorkloadStopsBeingBusy) {
  const picojson::value info = ReadJson(Velora() / "last_boot_time_information.json");
  ASSERT_TRUE(info.is<picojson::object>());
  const std::int64_t bootTime = Number(info.get("bootTime"));
  const std::int64_t busyEnd = Workload("busyEndTick");
  EXPECT_NEAR(static_cast<double>(bootTime), static_cast<double>(busyEnd), kBootTimeToleranceMs)
      << "boot time " << bootTime << " ms, workload busy until " << busyEnd << " ms since the machine started";
  EXPECT_GT(Number(info.get("systemStartTimestamp")), 0);
}

// The light copy in the Startup folder starts while the logon is busy; it must be followed by its
// image, not as a process without a name.
TEST_F(StagedBoot, TheWorkloadLeadsTheImpactAndTheStartupFolderProgramIsFollowedByItsName) {
  const picojson::value impact = ReadJson(Velora() / "last_boot_time_process_impact.json");
  ASSERT_TRUE(impact.get("processes").is<picojson::array>());
  std::string leader;
  std::int64_t leaderCpu = -1, leaderWritten = 0;
  bool lightFound = false;
  for (const picojson::value& process : impact.get("processes").get<picojson::array>()) {
    lightFound |= EndsWith(process.get("name").to_str(), "\\workload-light.exe");
    const picojson::value& counters = process.get("counters");
    ASSERT_TRUE(counters.is<picojson::array>() && counters.get<picojson::array>().size() == 5);
    const std::int64_t cpu = Number(counters.get(0)) + Number(counters.get(1));
    if (cpu > leaderCpu) {
      leaderCpu = cpu;
      leaderWritten = Number(counters.get(3));
      leader = process.get("name").to_str();
    }
  }
  EXPECT_TRUE(EndsWith(leader, "\\workload.exe")) << "the heaviest process of the boot is " << leader;
  const double burned = static_cast<double>(Workload("cpuMs"));
  EXPECT_NEAR(static_cast<double>(leaderCpu), burned, burned * kCpuTolerance)
      << leader << " measured with " << leaderCpu << " ms of CPU";
  EXPECT_GE(leaderWritten, Workload("writtenBytes")) << "bytes written by " << leader;
  EXPECT_TRUE(lightFound) << "workload-light.exe of the Startup folder is not in the impact list";
}

// A process-impact report naming workload.exe reaches lumeracentral.exe, and the last startup
// report names the staged user's two apps, the Run value's and the Startup file's
// (both copies of workload.exe, named by its version resource), and no decoy of the service's
// account, whose programs all describe themselves as "Decoy...".
TEST_F(StagedBoot, TheReportsReachTheCentralComponentWithTheStagedUsersAppsAndNoDecoy) {
  int reports = 0;
  int workloadApps = 0;
  bool workloadReported = false;
  for (const std::string& line : Lines(Out() / "central.jsonl")) {
    EXPECT_EQ(line.find(kDecoy), std::string::npos) << "lumeracentral.exe received a decoy: " << line;
    picojson::value report;
    ASSERT_EQ(picojson::parse(report, line), "");
    if (!report.is<picojson::object>()) continue;
    if (report.get("processes").is<picojson::array>()) {
      for (const picojson::value& process : report.get("processes").get<picojson::array>()) {
        workloadReported |= EndsWith(process.get("name").to_str(), "\\workload.exe");
      }
    }
    if (!report.get("apps").is<picojson::array>()) continue;
    ++reports;
    workloadApps = 0;
    for (const picojson::value& app : report.get("apps").get<picojson::array>()) {
      workloadApps += app.get("name").to_str() == kWorkloadDescription;
    }
  }
  EXPECT_TRUE(workloadReported) << "no process-impact report naming workload.exe reached lumeracentral.exe";
  ASSERT_GT(reports, 0) << "no startup report reached lumeracentral.exe";
  EXPECT_EQ(workloadApps, 2) << "apps named \"" << kWorkloadDescription << "\" in the last startup report";
}

// The first 32-bit word of an HKCU value, or -1 when it cannot be read.
long long FirstWord(const std::wstring& key, const wchar_t* name) {
  BYTE data[128] = {};
  DWORD size = sizeof data;
  if (::RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name, RRF_RT_ANY, nullptr, data, &size) != ERROR_SUCCESS ||
      size < sizeof(DWORD)) {
    return -1;
  }
  DWORD word = 0;
  std::memcpy(&word, data, sizeof word);
  return word;
}

std::filesystem::path Folder(int csidl) {
  wchar_t path[MAX_PATH] = {};
  return SUCCEEDED(::SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path)) ? std::filesystem::path(path)
                                                                                           : std::filesystem::path();
}

// The decoys of the service's account (this program's account too) are as stageduser.exe decoys
// left them, and the module's log never names one: it neither listed nor changed them.
TEST_F(StagedBoot, TheModuleLeavesTheDecoysAlone) {
  for (const std::string& line : Lines(Out() / "logs" / "lumera.log")) {
    EXPECT_EQ(line.find(kDecoy), std::string::npos) << "the module's log names a decoy: " << line;
  }
  using namespace winestandins::staging;
  constexpr long long kDisabledWord = 3;
  EXPECT_NE(FirstWord(kRunKey, kDecoyRunValue), -1) << "the Run value DecoyRun";
  EXPECT_NE(FirstWord(kRunKey, kDecoyStoredName), -1) << "the Run value DecoyStored";
  EXPECT_EQ(FirstWord(std::wstring(kApprovedKey) + L"Run", kDecoyStoredName), kDisabledWord);
  EXPECT_EQ(FirstWord(std::wstring(kApprovedKey) + L"StartupFolder", kDecoyStartupFile), kDisabledWord);
  EXPECT_TRUE(std::filesystem::exists(Folder(CSIDL_STARTUP) / kDecoyStartupFile)) << "the Startup-folder decoy";
  const std::wstring task = std::wstring(kTaskKey) + kDecoyPackageName + L"_" + kDecoyPublisherId + L"\\" + kDecoyTaskId;
  EXPECT_EQ(FirstWord(task, L"State"), 2) << "the Store decoy's task, enabled";
  bool stored = false;
  for (const std::string& line : Lines(Folder(CSIDL_APPDATA) / "Nexalon" / "Lumera" / "Storage.json")) {
    stored |= line.find("DecoyStored") != std::string::npos;
  }
  EXPECT_TRUE(stored) << "the Storage.json record DecoyStored";
}

}  // namespace
