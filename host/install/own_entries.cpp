#include "install/own_entries.h"

#include <windows.h>
#include <shlobj.h>

#include "common/text_convert.h"
#include "lumera/productinfo.h"
#include "picojson.h"
#include "startup/app_agent_dp_dll.h"

namespace host {
namespace {

std::wstring AgentPath(const HostConfig& config) {
  const auto it = config.items.find(lumera::ProductInfoKey(lumera::kItemAgentPath, L"Desktop"));
  return it == config.items.end() ? DefaultAgentFolder() : it->second;
}

// Opens the agent's store at `agentPath` through the library beside the host; 0 or the error.
std::uint32_t OpenAgent(startup::AppAgentDPDll& agent, const std::wstring& agentPath) {
  if (!agent.Init()) return ERROR_MOD_NOT_FOUND;
  return agent.init(agentPath.c_str());
}

}  // namespace

std::wstring LauncherCommand(const std::wstring& folder) {
  return L"\"" + folder + kLauncherProgram + L"\"" + kLauncherArguments;
}

std::uint32_t AddOwnEntries(const std::wstring& folder, const HostConfig& config, std::wstring& note) {
  const std::wstring command = LauncherCommand(folder);
  const LSTATUS written =
      ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kMachineRunKey, kLauncherRunValue, REG_SZ, command.c_str(),
                        static_cast<DWORD>((command.size() + 1) * sizeof(wchar_t)));
  if (written != ERROR_SUCCESS) return static_cast<std::uint32_t>(written);
  const std::wstring agentPath = AgentPath(config);
  if (agentPath.empty()) {
    note = L"no agent folder (item 422:Desktop, or ProgramData): the product's programs are not filtered from lists";
    return 0;
  }
  (void)::SHCreateDirectoryExW(nullptr, agentPath.c_str(), nullptr);
  startup::AppAgentDPDll agent;
  if (const std::uint32_t opened = OpenAgent(agent, agentPath); opened != 0) return opened;
  appagentdp::Transaction* transaction = nullptr;
  if (const std::uint32_t begun = agent.beginTransaction(kAgentApplication, &transaction); begun != 0) return begun;
  // The launcher's own path rather than the folder: the filter compares prefixes, and a
  // development folder also holds the test programs whose entries must stay visible.
  const std::wstring launcher = folder + kLauncherProgram;
  const std::wstring paths =
      ky::Utf8ToWide(picojson::value(picojson::array{picojson::value(ky::WideToUtf8(launcher))}).serialize());
  const std::uint32_t set = agent.set(transaction, appagentdp::kAppPathsValue, paths.c_str());
  const std::uint32_t ended = agent.endTransaction(transaction);
  return set != 0 ? set : ended;
}

std::uint32_t RemoveOwnEntries(const HostConfig& config) {
  const LSTATUS deleted = ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kMachineRunKey, kLauncherRunValue);
  if (deleted != ERROR_SUCCESS && deleted != ERROR_FILE_NOT_FOUND) return static_cast<std::uint32_t>(deleted);
  const std::wstring agentPath = AgentPath(config);
  if (agentPath.empty() || ::GetFileAttributesW(agentPath.c_str()) == INVALID_FILE_ATTRIBUTES) return 0;
  startup::AppAgentDPDll agent;
  if (const std::uint32_t opened = OpenAgent(agent, agentPath); opened != 0) return opened;
  const std::uint32_t removed = agent.remApp(kAgentApplication);
  return removed == ERROR_NOT_FOUND ? 0 : removed;
}

}  // namespace host
