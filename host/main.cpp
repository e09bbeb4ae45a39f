// lumerahost.exe: loads LumeraPlg.dll and runs it, in the console or as a Windows service.
//
//   lumerahost.exe [--config FILE] [--seconds N] [--log-console]   run in the console
//   lumerahost.exe --service [--config FILE]                      run under the service manager
//   lumerahost.exe install [--config FILE] | uninstall [--config FILE]
//                                       register or remove the service and the delayed-start entry
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/log.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "host_config.h"
#include "install/own_entries.h"
#include "lumera/logcore.h"
#include "module_runner.h"
#include "plugins/sessionchange.h"

namespace {

constexpr wchar_t kServiceName[] = L"LumeraHost";
constexpr std::uint32_t kMaxSeconds = 7 * 24 * 3600;

struct Options {
  std::wstring configPath;
  bool service = false;
  bool install = false;
  bool uninstall = false;
  bool logConsole = false;
  long seconds = -1;
};

HANDLE g_stopEvent = nullptr;  // owned by main's unique_handle
SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
Options g_options;

void Usage() {
  std::fwprintf(stderr,
                L"usage: lumerahost.exe [--config FILE] [--seconds N] [--log-console]\n"
                L"       lumerahost.exe --service [--config FILE]\n"
                L"       lumerahost.exe install [--config FILE] | uninstall [--config FILE]\n");
}

bool ParseOptions(Options& options) {
  std::vector<std::wstring> argv;
  if (!ky::ProcessArguments(argv)) return false;
  const int argc = static_cast<int>(argv.size());
  for (int i = 1; i < argc; ++i) {
    const std::wstring& arg = argv[i];
    if (arg == L"--config" && i + 1 < argc) {
      options.configPath = argv[++i];
    } else if (arg == L"--seconds" && i + 1 < argc) {
      wchar_t* end = nullptr;
      const long value = std::wcstol(argv[++i].c_str(), &end, 10);
      if (end == nullptr || *end != L'\0' || value < 0 || value > static_cast<long>(kMaxSeconds)) return false;
      options.seconds = value;
    } else if (arg == L"--log-console") {
      options.logConsole = true;
    } else if (arg == L"--service") {
      options.service = true;
    } else if (arg == L"install") {
      options.install = true;
    } else if (arg == L"uninstall") {
      options.uninstall = true;
    } else {
      return false;
    }
  }
  if (options.configPath.empty()) options.configPath = ky::ThisModuleFolder() + L"lumerahost.json";
  return true;
}

// Holds logcore.dll for the host's whole life so the settings made here stay in force for
// every user of the library in this process, the module included.
ky::ModuleLibrary ConfigureLogging(const host::HostConfig& config) {
  ky::ModuleLibrary logcore;
  if (logcore.Load(ky::ThisModuleFolder() + L"logcore.dll") != 0) return logcore;
  if (auto init = logcore.Resolve<LogInitFn>("LogInit")) init();
  if (!config.logFolder.empty()) {
    if (auto setPath = logcore.Resolve<LogSetPathFn>("LogSetPath")) setPath(config.logFolder.c_str());
  }
  if (auto setLevel = logcore.Resolve<LogSetLevelFn>("LogSetLevel")) setLevel(config.logLevel);
  if (auto setType = logcore.Resolve<LogSetTypeFn>("LogSetType")) {
    setType(config.logToConsole ? logcore::kTypeFileAndConsole : logcore::kTypeFile);
  }
  return logcore;
}

int RunHost(const host::HostConfig& config, DWORD seconds) {
  KY_TRACE(L"host::RunHost");
  host::ComponentManager manager(config);
  host::ModuleRunner runner(config, manager);
  if (!runner.Start()) return 2;
  KY_LOG(logging::kLevelInfo, L"host running%s", seconds ? L" for a fixed time" : L" until stopped");
  ::WaitForSingleObject(g_stopEvent, seconds ? seconds * 1000 : INFINITE);
  runner.Stop();
  return 0;
}

BOOL WINAPI OnConsoleCtrl(DWORD) {
  ::SetEvent(g_stopEvent);
  return TRUE;
}

bool LoadConfig(host::HostConfig& config) {
  std::wstring error;
  if (!host::LoadHostConfig(g_options.configPath, config, error)) {
    std::fwprintf(stderr, L"lumerahost: %ls\n", error.c_str());
    return false;
  }
  if (g_options.logConsole) config.logToConsole = true;
  if (g_options.seconds >= 0) config.seconds = static_cast<std::uint32_t>(g_options.seconds);
  return true;
}

void ReportServiceStatus(DWORD state, DWORD exitCode = 0) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted =
      state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_SESSIONCHANGE : 0;
  status.dwWin32ExitCode = exitCode;
  status.dwWaitHint = 5000;
  ::SetServiceStatus(g_statusHandle, &status);
}

DWORD WINAPI OnServiceControl(DWORD control, DWORD eventType, LPVOID eventData, LPVOID) {
  if (control == SERVICE_CONTROL_SESSIONCHANGE) {
    host::RelaySessionChange(eventType, static_cast<const WTSSESSION_NOTIFICATION*>(eventData));
    return NO_ERROR;
  }
  if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
    ReportServiceStatus(SERVICE_STOP_PENDING);
    ::SetEvent(g_stopEvent);
  }
  return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
  g_statusHandle = ::RegisterServiceCtrlHandlerExW(kServiceName, &OnServiceControl, nullptr);
  if (g_statusHandle == nullptr) return;
  ReportServiceStatus(SERVICE_START_PENDING);
  host::SetSessionChangesFromService(true);
  host::HostConfig config;
  if (!LoadConfig(config)) {
    ReportServiceStatus(SERVICE_STOPPED, ERROR_BAD_CONFIGURATION);
    return;
  }
  ky::ModuleLibrary logcore = ConfigureLogging(config);
  ReportServiceStatus(SERVICE_RUNNING);
  const int result = RunHost(config, 0);
  ReportServiceStatus(SERVICE_STOPPED, result == 0 ? 0 : ERROR_SERVICE_SPECIFIC_ERROR);
}

int InstallService(bool install) {
  host::HostConfig config;
  if (!LoadConfig(config)) return 1;
  ky::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) {
    std::fwprintf(stderr, L"lumerahost: OpenSCManager failed %lu\n", ::GetLastError());
    return 1;
  }
  if (!install) {
    ky::unique_schandle service(::OpenServiceW(manager.get(), kServiceName, DELETE));
    if (!service || !::DeleteService(service.get())) {
      std::fwprintf(stderr, L"lumerahost: removing the service failed %lu\n", ::GetLastError());
      return 1;
    }
    std::wprintf(L"service %ls removed\n", kServiceName);
    if (const std::uint32_t removed = host::RemoveOwnEntries(config); removed != 0) {
      std::fwprintf(stderr, L"lumerahost: removing the delayed-start entry failed %u\n", removed);
      return 1;
    }
    return 0;
  }
  wchar_t exe[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
  const std::wstring command = L"\"" + std::wstring(exe) + L"\" --service --config \"" + g_options.configPath + L"\"";
  ky::unique_schandle service(::CreateServiceW(manager.get(), kServiceName, L"Lumera development host", SERVICE_ALL_ACCESS,
                                               SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                               command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (!service) {
    std::fwprintf(stderr, L"lumerahost: CreateService failed %lu\n", ::GetLastError());
    return 1;
  }
  std::wprintf(L"service %ls installed: %ls\n", kServiceName, command.c_str());
  std::wstring note;
  if (const std::uint32_t added = host::AddOwnEntries(ky::ThisModuleFolder(), config, note); added != 0) {
    std::fwprintf(stderr, L"lumerahost: registering the delayed-start entry failed %u\n", added);
    return 1;
  }
  std::wprintf(L"delayed start registered: %ls\n", host::LauncherCommand(ky::ThisModuleFolder()).c_str());
  if (!note.empty()) std::fwprintf(stderr, L"lumerahost: %ls\n", note.c_str());
  return 0;
}

}  // namespace

int main() {
  if (!ParseOptions(g_options)) {
    Usage();
    return 2;
  }
  if (g_options.install || g_options.uninstall) return InstallService(g_options.install);

  ky::unique_handle stopEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  g_stopEvent = stopEvent.get();
  if (g_options.service) {
    SERVICE_TABLE_ENTRYW table[] = {{const_cast<LPWSTR>(kServiceName), &ServiceMain}, {nullptr, nullptr}};
    return ::StartServiceCtrlDispatcherW(table) ? 0 : 1;
  }
  host::HostConfig config;
  if (!LoadConfig(config)) return 2;
  ky::ModuleLibrary logcore = ConfigureLogging(config);
  ::SetConsoleCtrlHandler(&OnConsoleCtrl, TRUE);
  return RunHost(config, config.seconds);
}
