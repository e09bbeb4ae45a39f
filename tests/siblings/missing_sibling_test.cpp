// Each sibling library and StartLauncher.exe missing in turn: the programs that load the module
// start from a folder holding every binary but that one, with a copy of it planted in their
// current folder and in a PATH folder; the feature that needs it fails with its code and its
// log line, the planted copy is never loaded or started, and nothing crashes. Beside the
// module, the same files are loaded and started.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "picojson.h"
#include "support/programs.h"
#include "support/scoped_environment.h"
#include "support/scratch_folder.h"
#include "support/test_thread.h"

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kHostConfig[] = L"host.json";
constexpr wchar_t kLauncher[] = L"StartLauncher.exe";
// What a copy of the probe named StartLauncher.exe writes beside itself once started.
constexpr wchar_t kStartedMark[] = L"started.txt";
constexpr DWORD kStartWaitMs = 20000;

struct Row {
  const wchar_t* missing;             // the library left out of the folder
  const wchar_t* command;             // program and arguments, run in that folder ("@" is the folder)
  DWORD exitCode;                     // what the program returns
  std::vector<const char*> logLines;  // texts the log must hold; empty: no log may be written
  const char* output;                 // what the program's output must hold
  const char* oncePerFile;            // a text the log holds exactly once per "@" argument
};

// One line per library and program; the host runs the boot-time objects for a second.
const Row kRows[] = {
    {L"logcore.dll", L"lumerahost.exe --seconds 1 --config host.json", 0, {}, "", nullptr},
    {L"pipelink.dll", L"lumerahost.exe --seconds 1 --config host.json", 0,
     {"pipelink.dll failed 0x7e", "Error getting connector server.", "Connector server is null.", "boottimecomm Start failed 31"},
     "", nullptr},
    {L"pipelink.dll", L"boottime.exe time", 3, {"FAILED load pipelink.dll 0x7e"}, "", nullptr},
    {L"hostconfig.dll", L"sibling_probe.exe productinfo", 126, {"hostconfig.dll failed 0x7e"}, "", nullptr},
    {L"kyusers.dll", L"sibling_probe.exe users", 126, {"kyusers.dll failed 0x7e"}, "", nullptr},
    {L"kyusers.dll", L"startupctl.exe list", 0, {"kyusers.dll failed 0x7e", "CKYUsers::ReloadDll failed"}, "", nullptr},
    {L"AppAgentDP.dll", L"sibling_probe.exe appsfilter", 0, {"failed load AppAgentDP.dll err=126", "AppAgentDPDll init failed"},
     "paths 0", nullptr},
    // Every application is still reported, with an empty identity.
    {L"KYFastDB.dll", L"sibling_probe.exe qid @report_fixture_full.exe @report_fixture_german.exe", 0,
     {"Failed LoadLibrary KYFastDB.dll 0x7e"}, "qid[]qid[]", "Failed get QID for "},
    {kLauncher, L"sibling_probe.exe launcher", 0,
     {"Process = 'StartLauncher.exe /checkcrtuser' could not be created. Error = 2"}, "", nullptr},
};

// `name` as planted or staged: the build's own file, or for StartLauncher.exe the probe, which
// records that it was started.
fs::path Source(const std::wstring& name) {
  if (name == kLauncher) return fs::path(testsupport::ExeFolder()) / L"sibling_probe.exe";
  return testsupport::BinFolder() / name;
}

// Every library of the build beside the module, the module's programs, the probe and its copy
// as StartLauncher.exe, but one.
void Stage(const fs::path& folder, const std::wstring& missing) {
  const fs::path bin = testsupport::BinFolder();
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(bin)) {
    if (entry.path().extension() == L".dll") files.push_back(entry.path());
  }
  for (const wchar_t* program : {L"lumerahost.exe", L"boottime.exe", L"startupctl.exe"}) files.push_back(bin / program);
  for (const wchar_t* program : {L"sibling_probe.exe", L"report_fixture_full.exe", L"report_fixture_german.exe"}) {
    files.push_back(fs::path(testsupport::ExeFolder()) / program);
  }
  for (const fs::path& file : files) {
    if (_wcsicmp(file.filename().c_str(), missing.c_str()) != 0) fs::copy_file(file, folder / file.filename());
  }
  if (missing != kLauncher) fs::copy_file(Source(kLauncher), folder / kLauncher);
}

// The programs run with `file` planted in their current folder and in a folder first on PATH.
struct Planted : testsupport::PlantedSearchFolders {
  explicit Planted(const std::wstring& file) { Plant(Source(file), file); }
  // Whether a planted StartLauncher.exe was started.
  bool Started() const { return EitherHas(kStartedMark); }
};

std::string JsonPath(const fs::path& path) { return picojson::value(path.string()).serialize(); }

struct StagedRun {
  testsupport::ProgramRun run;
  std::string log;          // the module's log file, empty when none was written
  bool logWritten = false;
  std::size_t files = 0;    // how many "@" arguments the command had
};

// Runs `rowCommand` from `folder` with the module's log in folder\logs.
StagedRun RunStaged(const fs::path& folder, const std::wstring& rowCommand) {
  const fs::path logs = folder / L"logs";
  std::ofstream(folder / kHostConfig, std::ios::binary)
      << "{\"objects\": [\"boottime\", \"boottimecomm\"], \"log\": {\"folder\": " << JsonPath(logs)
      << ", \"level\": 32}, \"folders\": {\"2:common\": " << JsonPath(folder / L"common") << "}}";
  const testsupport::ScopedEnvironment logDir(L"LUMERA_LOG_DIR", logs.wstring());
  const testsupport::ScopedEnvironment logLevel(L"LUMERA_LOG_LEVEL", L"32");
  StagedRun staged;
  std::wstring command = rowCommand;
  const std::wstring program = command.substr(0, command.find(L' '));
  for (std::size_t at = command.find(L'@'); at != std::wstring::npos; at = command.find(L'@', at), ++staged.files) {
    command.replace(at, 1, folder.wstring() + L"\\");
  }
  staged.run = testsupport::RunProgram(testsupport::Quoted(folder / program) + command.substr(program.size()), 60000);
  staged.logWritten = fs::exists(logs / L"lumera.log");
  staged.log = testsupport::ReadFileBytes((logs / L"lumera.log").wstring());
  return staged;
}

TEST(MissingSibling, FeatureFailsWithItsCodeAndLogLineAndTheCopyInTheCurrentFolderOrOnPathIsNeverUsed) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << fs::path(row.missing).string() << ": " << fs::path(row.command).string());
    testsupport::ScratchFolder scratch;
    const fs::path folder(scratch.path());
    Stage(folder, row.missing);
    const Planted planted(row.missing);
    const StagedRun staged = RunStaged(folder, row.command);

    EXPECT_EQ(staged.run.exitCode, row.exitCode) << staged.run.output;
    EXPECT_NE(staged.run.output.find(row.output), std::string::npos) << staged.run.output;
    if (row.logLines.empty()) {
      EXPECT_FALSE(staged.logWritten) << staged.log;
    }
    for (const char* line : row.logLines) {
      EXPECT_NE(staged.log.find(line), std::string::npos) << "missing \"" << line << "\" in:\n" << staged.log << staged.run.output;
    }
    if (row.oncePerFile != nullptr) {
      std::size_t count = 0;
      for (std::size_t at = staged.log.find(row.oncePerFile); at != std::string::npos;
           at = staged.log.find(row.oncePerFile, at + 1)) {
        ++count;
      }
      EXPECT_EQ(count, staged.files) << staged.log;
    }
    EXPECT_FALSE(planted.Started()) << "a StartLauncher.exe outside the module's folder was started";
  }
}

TEST(MissingSibling, BesideTheModuleTheLibrariesAreLoadedAndTheCheckStartedWithoutTheHostsHandles) {
  testsupport::ScratchFolder scratch;
  const fs::path folder(scratch.path());
  Stage(folder, L"");
  const Planted planted(kLauncher);
  for (const wchar_t* command : {L"sibling_probe.exe users", L"sibling_probe.exe productinfo"}) {
    const StagedRun staged = RunStaged(folder, command);
    EXPECT_EQ(staged.run.exitCode, 0u) << fs::path(command).string() << "\n" << staged.log << staged.run.output;
  }
  const StagedRun qid = RunStaged(folder, L"sibling_probe.exe qid @report_fixture_full.exe");
  EXPECT_EQ(qid.run.exitCode, 0u) << qid.log << qid.run.output;
  EXPECT_EQ(qid.run.output.find("qid[]"), std::string::npos) << "KYFastDB.dll gave an identity: " << qid.run.output;

  const StagedRun launched = RunStaged(folder, L"sibling_probe.exe launcher");
  EXPECT_NE(launched.log.find("Process = 'StartLauncher.exe /checkcrtuser' created"), std::string::npos) << launched.log;
  ASSERT_TRUE(testsupport::WaitUntil([&] { return fs::exists(folder / kStartedMark); }, kStartWaitMs))
      << "StartLauncher.exe beside the module did not start within " << kStartWaitMs << " ms";
  EXPECT_EQ(testsupport::ReadFileBytes((folder / kStartedMark).wstring()), "clean")
      << "StartLauncher.exe inherited the host's inheritable handle";
  EXPECT_FALSE(planted.Started());
}

}  // namespace
