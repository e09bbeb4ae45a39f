#include "report_command.h"

#include <cstdio>
#include <cwchar>

#include "plugin/plugin_startup_manager.h"
#include "plugin/productinfo_loader.h"

namespace startupctl {
namespace {

constexpr int kExitSent = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;

void Write(FILE* stream, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

bool ParseMs(const std::wstring& text, std::uint32_t& value) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of(L"0123456789") != std::wstring::npos) return false;
  value = static_cast<std::uint32_t>(std::wcstoul(text.c_str(), nullptr, 10));
  return true;
}

}  // namespace

int Report(const std::vector<std::wstring>& args) {
  std::uint32_t bootTime = 0;
  if (args.size() == 4 && args[2] == L"--boot-time") {
    if (!ParseMs(args[3], bootTime)) {
      Write(stderr, "startupctl: --boot-time needs a number of milliseconds\n");
      return kExitUsage;
    }
  } else if (args.size() != 2) {
    Write(stderr, "usage: startupctl report [--boot-time MS]\n");
    return kExitUsage;
  }
  int exitCode = kExitSent;
  {
    boottime::CPluginStartupManager manager([] { return static_cast<IProductInfo*>(plugin::AcquireProductInfo()); });
    (void)manager.Init();
    manager.SetBootTime(bootTime);
    const bool connected = manager.Connected();
    const std::uint32_t result = manager.BuildAndReport();
    Write(stdout, manager.LastReport() + "\n");
    if (!connected) {
      Write(stderr, "startupctl: not sent: no central component listens on RemoteDispatcherPipe\n");
      exitCode = kExitUnreachable;
    } else if (result != 0) {
      Write(stderr, "startupctl: the report could not be posted, error " + std::to_string(result) + "\n");
      exitCode = kExitFailed;
    } else {
      Write(stderr, "startupctl: report sent to RemoteDispatcherPipe\n");
    }
  }
  plugin::ReleaseProductInfo();
  return exitCode;
}

}  // namespace startupctl
