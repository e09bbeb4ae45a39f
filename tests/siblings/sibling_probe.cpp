// sibling_probe.exe productinfo | users | appsfilter | qid FILE... | launcher: runs the module's
// own loader of hostconfig.dll, kyusers.dll, AppAgentDP.dll or KYFastDB.dll, or its logoff
// check's start of StartLauncher.exe, from the folder it sits in. productinfo and users exit
// with the loader's code (0 when loaded); appsfilter prints the number of paths gathered; qid
// prints "qid[...]" for the application of each file and exits with the number of files that
// gave no application; launcher holds an inheritable handle of "handle.probe" in its folder
// and passes its value in LUMERA_PROBE_HANDLE. Copied as StartLauncher.exe, the probe records
// that it was started in "started.txt" of its own folder: "inherited" when that handle reached
// it, else "clean".
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/log.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "common/text_convert.h"
#include "plugin/productinfo_loader.h"
#include "startup/application.h"
#include "startup/apps_filter.h"
#include "users/ky_users.h"
#include "users/start_launcher_check.h"

namespace {

constexpr char kHandleVariable[] = "LUMERA_PROBE_HANDLE";

int RecordStarted() {
  const char* value = std::getenv(kHandleVariable);
  const auto handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(value ? std::strtoull(value, nullptr, 10) : 0));
  // The value may name some handle of this process's own, so the file behind it is compared.
  wchar_t path[MAX_PATH] = {};
  const DWORD n = handle != nullptr ? ::GetFinalPathNameByHandleW(handle, path, MAX_PATH, FILE_NAME_NORMALIZED) : 0;
  const std::wstring name(path, n < MAX_PATH ? n : 0);
  const bool inherited = name.size() >= 12 && _wcsicmp(name.c_str() + name.size() - 12, L"handle.probe") == 0;
  const std::wstring mark = ky::ThisModuleFolder() + L"started.txt";
  std::ofstream(std::filesystem::path(mark + L".new")) << (inherited ? "inherited" : "clean");
  // Renamed into place so that a reader never sees the mark before its text.
  return ::MoveFileW((mark + L".new").c_str(), mark.c_str()) ? 0 : 1;
}

int Launch() {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  ky::unique_file file(::CreateFileW((ky::ThisModuleFolder() + L"handle.probe").c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                     &inheritable, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  const std::string value = std::to_string(reinterpret_cast<std::uintptr_t>(file.get()));
  ::SetEnvironmentVariableA(kHandleVariable, value.c_str());
  CStartLauncherCheckExec().OnLogoff(0, L"probe");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strncmp(argv[1], "/check", 6) == 0) return RecordStarted();
  logging::LogRef keepLogBound;
  if (argc == 2 && std::strcmp(argv[1], "launcher") == 0) return Launch();
  if (argc == 2 && std::strcmp(argv[1], "productinfo") == 0) {
    std::uint32_t error = 0;
    if (plugin::AcquireProductInfo(&error) == nullptr) return static_cast<int>(error);
    plugin::ReleaseProductInfo();
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "users") == 0) {
    // As the startup sources ask for the current user: load, then ask.
    auto& users = velora::utils::CKYUsers::Instance();
    (void)users.ReloadDll();
    std::wstring user;
    std::wstring domain;
    return static_cast<int>(users.GetCurrentUserInfoBasic(user, domain));
  }
  if (argc == 2 && std::strcmp(argv[1], "appsfilter") == 0) {
    startup::CAppsFilter filter([] { return static_cast<IProductInfo*>(nullptr); });
    filter.Init();
    std::printf("paths %zu\n", filter.Paths().size());
    return 0;
  }
  if (argc >= 3 && std::strcmp(argv[1], "qid") == 0) {
    int missing = 0;
    for (int i = 2; i < argc; ++i) {
      // As a Run value that starts the file.
      startup::StartupItem item;
      item.name = L"probe" + std::to_wstring(i);
      item.location = L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
      item.path = L"\"" + ky::Utf8ToWide(argv[i]) + L"\"";
      item.isUser = 1;
      startup::Application app;
      if (!app.Init(item, startup::kSourceRunKey, 0)) {
        ++missing;
        continue;
      }
      std::printf("qid[%s]", ky::WideToUtf8(app.qid).c_str());
    }
    std::printf("\n");
    return missing;
  }
  return 2;
}
