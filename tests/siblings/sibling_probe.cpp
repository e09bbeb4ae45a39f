// sibling_probe.exe productinfo | users: runs the module's own loader of hostconfig.dll or
// kyusers.dll from the folder it sits in; the exit code is the loader's code (0 when loaded).
#include <cstring>
#include <string>

#include "common/log.h"
#include "plugin/productinfo_loader.h"
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
  return 2;
}
