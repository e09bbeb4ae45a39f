// lumerahost.exe loads the real module from its folder and drives its objects; the real
// logcore.dll writes what happened.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/unique_handle.h"
#include "support/programs.h"
#include "support/scratch_folder.h"

namespace {

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
}

std::string Json(const std::filesystem::path& path) {
  std::string text = path.string();
  std::string escaped;
  for (char c : text) escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
  return escaped;
}

TEST(HostRun, DrivesEveryConfiguredObjectThroughItsLifecycleAndLogs) {
  testsupport::ScratchFolder scratchFolder;
  const std::filesystem::path scratch(scratchFolder.path());
  const auto logs = scratch / L"logs";
  const auto config = scratch / L"host.json";
  WriteText(config, "{\"objects\": [\"boottime\", \"nosuchobject\"], \"log\": {\"folder\": \"" + Json(logs) +
                        "\", \"level\": 32}, \"folders\": {\"2:common\": \"" + Json(scratch / L"common") + "\"}}");
  const std::wstring command =
      L"\"" + (testsupport::BinFolder() / L"lumerahost.exe").wstring() + L"\" --seconds 1 --config \"" + config.wstring() + L"\"";
  ASSERT_EQ(testsupport::RunProgram(command).exitCode, 0u);

  const std::string log = ReadAll(logs / L"lumera.log");
  for (const char* expected : {"obj name = boottime", "-> boottime::CBootTimePlugin::Init", "KyCreateObject nosuchobject failed 1168",
                               "boottime destroyed", "obj name = nosuchobject"}) {
    EXPECT_NE(log.find(expected), std::string::npos) << "missing \"" << expected << "\" in:\n" << log;
  }
}

TEST(HostRun, RefusesBadCommandLinesAndMalformedConfiguration) {
  testsupport::ScratchFolder scratchFolder;
  const std::filesystem::path scratch(scratchFolder.path());
  const std::wstring host = testsupport::Quoted(testsupport::BinFolder() / L"lumerahost.exe");
  EXPECT_EQ(testsupport::RunProgram(host + L" --seconds -5", 10000).exitCode, 2u);
  EXPECT_EQ(testsupport::RunProgram(host + L" --no-such-option", 10000).exitCode, 2u);
  const auto config = scratch / L"broken.json";
  WriteText(config, "{\"objects\": [");
  EXPECT_EQ(testsupport::RunProgram(host + L" --seconds 0 --config \"" + config.wstring() + L"\"", 10000).exitCode, 2u);
}

}  // namespace
