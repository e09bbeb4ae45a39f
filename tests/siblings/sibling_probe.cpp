// sibling_probe.exe productinfo | users | appsfilter | qid FILE...: runs the module's own
// loader of hostconfig.dll, kyusers.dll, AppAgentDP.dll or KYFastDB.dll from the folder it sits
// in. productinfo and users exit with the loader's code (0 when loaded); appsfilter prints the
// number of paths gathered; qid prints "qid[...]" for the application of each file and exits
// with the number of files that gave no application.
#include <cstdio>
#include <cstring>
#include <string>

#include "common/log.h"
#include "common/text_convert.h"
#include "plugin/productinfo_loader.h"
#include "startup/application.h"
#include "startup/apps_filter.h"
#include "users/ky_users.h"

int main(int argc, char** argv) {
  logging::LogRef keepLogBound;
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
