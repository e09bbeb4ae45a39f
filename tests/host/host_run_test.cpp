// lumerahost.exe loads the real module from its folder and drives its objects; the real
// logcore.dll writes what happened.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "support/programs.h"
#include "support/scratch_folder.h"

namespace {

std::wstring Host() { return testsupport::Quoted(testsupport::BinFolder() / L"lumerahost.exe"); }

std::string Json(const std::filesystem::path& path) {
  return std::regex_replace(path.string(), std::regex(R"(\\)"), R"(\\)");
}

TEST(HostRun, DrivesEveryConfiguredObjectThroughItsLifecycleAndLogs) {
  testsupport::ScratchFolder scratchFolder;
  const std::filesystem::path scratch(scratchFolder.path());
  const auto logs = scratch / L"logs";
  const auto config = scratch / L"host.json";
  std::ofstream(config, std::ios::binary) << "{\"objects\": [\"boottime\", \"nosuchobject\"], \"log\": {\"folder\": \""
                                          << Json(logs) << "\", \"level\": 32}, \"folders\": {\"2:common\": \""
                                          << Json(scratch / L"common") << "\"}}";
  const auto run = testsupport::RunProgram(Host() + L" --seconds 1 --config " + testsupport::Quoted(config));
  ASSERT_EQ(run.exitCode, 0u) << run.output;

  const std::string log = testsupport::ReadFileBytes((logs / L"lumera.log").wstring());
  for (const char* expected : {"obj name = boottime", "-> boottime::CBootTimePlugin::Init", "KyCreateObject nosuchobject failed 1168",
                               "boottime destroyed", "obj name = nosuchobject"}) {
    EXPECT_NE(log.find(expected), std::string::npos) << "missing \"" << expected << "\" in:\n" << log;
  }
}

TEST(HostRun, RefusesBadCommandLinesAndMalformedConfiguration) {
  testsupport::ScratchFolder scratch;
  const std::wstring host = Host();
  EXPECT_EQ(testsupport::RunProgram(host + L" --seconds -5", 10000).exitCode, 2u);
  EXPECT_EQ(testsupport::RunProgram(host + L" --no-such-option", 10000).exitCode, 2u);
  const std::filesystem::path config = scratch.file(L"broken.json");
  std::ofstream(config, std::ios::binary) << "{\"objects\": [";
  EXPECT_EQ(testsupport::RunProgram(host + L" --seconds 0 --config " + testsupport::Quoted(config), 10000).exitCode, 2u);
}

}  // namespace
