// lumerahost.exe loads the real module from its folder and drives its objects; the real
// logcore.dll writes what happened.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/unique_handle.h"
#include "support/scratch_folder.h"

namespace {

std::filesystem::path BinFolder() {
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path().parent_path();
}

DWORD RunProgram(std::wstring command, DWORD timeoutMs) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
    return ::GetLastError();
  }
  ky::unique_handle processHandle(process.hProcess);
  ky::unique_handle threadHandle(process.hThread);
  if (::WaitForSingleObject(processHandle.get(), timeoutMs) != WAIT_OBJECT_0) {
    ::TerminateProcess(processHandle.get(), 1);
    return WAIT_TIMEOUT;
  }
  DWORD code = 1;
  ::GetExitCodeProcess(processHandle.get(), &code);
  return code;
}

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
      L"\"" + (BinFolder() / L"lumerahost.exe").wstring() + L"\" --seconds 1 --config \"" + config.wstring() + L"\"";
  ASSERT_EQ(RunProgram(command, 30000), 0u);

  const std::string log = ReadAll(logs / L"lumera.log");
  for (const char* expected : {"obj name = boottime", "-> boottime::CBootTimePlugin::Init", "KyCreateObject nosuchobject failed 1168",
                               "boottime destroyed", "obj name = nosuchobject"}) {
    EXPECT_NE(log.find(expected), std::string::npos) << "missing \"" << expected << "\" in:\n" << log;
  }
}

TEST(HostRun, RefusesBadCommandLinesAndMalformedConfiguration) {
  testsupport::ScratchFolder scratchFolder;
  const std::filesystem::path scratch(scratchFolder.path());
  const std::wstring host = L"\"" + (BinFolder() / L"lumerahost.exe").wstring() + L"\"";
  EXPECT_EQ(RunProgram(host + L" --seconds -5", 10000), 2u);
  EXPECT_EQ(RunProgram(host + L" --no-such-option", 10000), 2u);
  const auto config = scratch / L"broken.json";
  WriteText(config, "{\"objects\": [");
  EXPECT_EQ(RunProgram(host + L" --seconds 0 --config \"" + config.wstring() + L"\"", 10000), 2u);
}

}  // namespace
