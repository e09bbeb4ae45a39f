// The development host's configuration: which module objects to create, the folders the
// "productinfo" plug-in answers, and log settings. Read from a small JSON file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace host {

struct HostConfig {
  std::vector<std::wstring> objects{L"boottime", L"boottimecomm", L"boottimecommclient"};
  std::wstring moduleName = L"LumeraPlg.dll";
  // "productinfo" answers: folder kind + name ("2:common") -> path; item + argument -> text.
  std::map<std::wstring, std::wstring> folders;
  std::map<std::wstring, std::wstring> items;
  std::wstring logFolder;            // empty: logcore's default
  std::uint32_t logLevel = 32;
  bool logToConsole = false;
  std::uint32_t seconds = 0;         // 0: run until Ctrl+C or the service is stopped
  std::map<std::wstring, std::wstring> settings;  // free-form values for host plug-ins
};

// Fills `config` from the JSON file at `path`. Returns false (with `error` set) when the file
// exists but is unreadable, too large or malformed; a missing file keeps the defaults.
[[nodiscard]] bool LoadHostConfig(const std::wstring& path, HostConfig& config, std::wstring& error);

// The common data folder when the configuration names none: ProgramData\Nexalon\Lumera.
std::wstring DefaultCommonFolder();
// The agent's folder when the configuration names none (item 422 "Desktop"), as hostconfig.dll
// answers it: ProgramData\Nexalon\Lumera\Agent.
std::wstring DefaultAgentFolder();

}  // namespace host
