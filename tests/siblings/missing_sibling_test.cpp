// Each sibling library missing in turn: the programs that load the module start from a folder
// holding every binary but that one; the feature that needs it fails with its code and its log
// line, and nothing crashes.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/programs.h"
#include "support/scratch_folder.h"

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kHostConfig[] = L"host.json";

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
};

// Every library of the build beside the module, the module's programs and the probe, but one.
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
}

std::string JsonPath(const fs::path& path) {
  std::string out;
  for (char c : path.string()) {
    if (c == '\\') out += '\\';
    out += c;
  }
  return out;
}

TEST(MissingSibling, FeatureFailsWithItsCodeAndLogLineAndNothingCrashes) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << fs::path(row.missing).string() << ": " << fs::path(row.command).string());
    testsupport::ScratchFolder scratch;
    const fs::path folder(scratch.path());
    Stage(folder, row.missing);
    const fs::path logs = folder / L"logs";
    std::ofstream(folder / kHostConfig, std::ios::binary)
        << "{\"objects\": [\"boottime\", \"boottimecomm\"], \"log\": {\"folder\": \"" << JsonPath(logs)
        << "\", \"level\": 32}, \"folders\": {\"2:common\": \"" << JsonPath(folder / L"common") << "\"}}";
    ::SetEnvironmentVariableW(L"LUMERA_LOG_DIR", logs.wstring().c_str());
    ::SetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", L"32");
    std::wstring command = row.command;
    const std::wstring program = command.substr(0, command.find(L' '));
    std::size_t files = 0;
    for (std::size_t at = command.find(L'@'); at != std::wstring::npos; at = command.find(L'@', at), ++files) {
      command.replace(at, 1, folder.wstring() + L"\\");
    }
    const auto run = testsupport::RunProgram(testsupport::Quoted(folder / program) + command.substr(program.size()), 60000);
    ::SetEnvironmentVariableW(L"LUMERA_LOG_DIR", nullptr);
    ::SetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", nullptr);

    EXPECT_EQ(run.exitCode, row.exitCode) << run.output;
    EXPECT_NE(run.output.find(row.output), std::string::npos) << run.output;
    const std::string log = testsupport::ReadFileBytes((logs / L"lumera.log").wstring());
    if (row.logLines.empty()) {
      EXPECT_FALSE(fs::exists(logs / L"lumera.log")) << log;
    }
    for (const char* line : row.logLines) {
      EXPECT_NE(log.find(line), std::string::npos) << "missing \"" << line << "\" in:\n" << log << run.output;
    }
    if (row.oncePerFile != nullptr) {
      std::size_t count = 0;
      for (std::size_t at = log.find(row.oncePerFile); at != std::string::npos; at = log.find(row.oncePerFile, at + 1)) ++count;
      EXPECT_EQ(count, files) << log;
    }
  }
}

}  // namespace
