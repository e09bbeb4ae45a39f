// lumerahost.exe registered and run as a real Windows service, then removed.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/unique_handle.h"
#include "picojson.h"
#include "support/programs.h"

namespace {

DWORD RunHostCommand(const std::wstring& arguments) { return testsupport::RunBinProgram(L"lumerahost.exe", arguments, 30000).exitCode; }

DWORD WaitForState(SC_HANDLE service, DWORD wanted) {
  SERVICE_STATUS status{};
  for (int i = 0; i < 300; ++i) {
    if (!::QueryServiceStatus(service, &status)) return 0;
    if (status.dwCurrentState == wanted) break;
    ::Sleep(50);
  }
  return status.dwCurrentState;
}

TEST(HostService, InstallsStartsStopsAndUninstalls) {
  const std::filesystem::path config = std::filesystem::temp_directory_path() / L"lumerahost-service-test.json";
  // A scratch agent folder: the install records the build's folder as the product's in it, which
  // would hide the test fixtures there from every other test's lists.
  const std::filesystem::path agent = std::filesystem::temp_directory_path() / L"lumerahost-service-test-agent";
  std::ofstream(config, std::ios::binary) << "{\"objects\": [\"boottime\"], \"items\": {\"422:Desktop\": "
                                          << picojson::value(agent.string()).serialize() << "}}";
  RunHostCommand(L"uninstall --config " + testsupport::Quoted(config));  // a leftover from an interrupted run
  ASSERT_EQ(RunHostCommand(L"install --config " + testsupport::Quoted(config)), 0u);

  ky::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ASSERT_TRUE(manager);
  ky::unique_schandle service(::OpenServiceW(manager.get(), L"LumeraHost", SERVICE_ALL_ACCESS));
  ASSERT_TRUE(service) << ::GetLastError();
  ASSERT_TRUE(::StartServiceW(service.get(), 0, nullptr)) << ::GetLastError();
  EXPECT_EQ(WaitForState(service.get(), SERVICE_RUNNING), static_cast<DWORD>(SERVICE_RUNNING));

  SERVICE_STATUS status{};
  EXPECT_TRUE(::ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) << ::GetLastError();
  EXPECT_EQ(WaitForState(service.get(), SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));
  service.reset();

  EXPECT_EQ(RunHostCommand(L"uninstall --config " + testsupport::Quoted(config)), 0u);
  EXPECT_FALSE(ky::unique_schandle(::OpenServiceW(manager.get(), L"LumeraHost", SERVICE_QUERY_STATUS)));
  std::filesystem::remove(config);
  std::filesystem::remove_all(agent);
}

}  // namespace
