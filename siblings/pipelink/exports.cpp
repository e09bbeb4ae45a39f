// pipelink.dll's factory: "connserver" and "connclient".
#include <windows.h>

#include <cwchar>
#include <new>

#include "lumera/interface_ids.h"
#include "lumera_dev/service_account.h"
#include "pipe_client.h"
#include "pipe_server.h"

namespace {

enum class Kind { kNone, kServer, kClient };

Kind KindOf(const wchar_t* name) {
  if (name == nullptr) return Kind::kNone;
  if (_wcsicmp(name, L"connserver") == 0) return Kind::kServer;
  if (_wcsicmp(name, L"connclient") == 0) return Kind::kClient;
  return Kind::kNone;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  // Under Wine every process runs as one account: the development stand-in tells this library's
  // clients which serving processes stand for LocalSystem; elsewhere nothing is installed.
  if (reason == DLL_PROCESS_ATTACH) (void)lumera::dev::InstallLocalSystemStandIn(instance);
  return TRUE;
}

extern "C" void __cdecl KyDestroyObject(const wchar_t* name, void* object);

extern "C" std::uint32_t __cdecl KyCreateObject(const wchar_t* name, const GUID* iid, void** out) {
  try {
    if (out == nullptr) return ERROR_INVALID_DATA;
    *out = nullptr;
    if (iid == nullptr) return ERROR_INVALID_DATA;
    IKyBaseInterface* object = nullptr;
    switch (KindOf(name)) {
      case Kind::kServer:
        object = new (std::nothrow) pipelink::ConnServer();
        break;
      case Kind::kClient:
        object = new (std::nothrow) pipelink::ConnClient();
        break;
      case Kind::kNone:
        return name == nullptr ? ERROR_INVALID_DATA : ERROR_NOT_FOUND;
    }
    if (object == nullptr) return ERROR_OUTOFMEMORY;
    *out = object->GetInterface(*iid);
    if (*out == nullptr) {
      KyDestroyObject(name, object);
      return ERROR_NOT_FOUND;
    }
    return 0;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

extern "C" void __cdecl KyDestroyObject(const wchar_t* name, void* object) {
  try {
    if (object == nullptr) return;
    auto* base = static_cast<IKyBaseInterface*>(object);
    switch (KindOf(name)) {
      case Kind::kServer:
        delete static_cast<pipelink::ConnServer*>(static_cast<pipelink::IConnServer*>(base->GetInterface(lumera::ids::IKyBaseInterface)));
        break;
      case Kind::kClient:
        delete static_cast<pipelink::ConnClient*>(static_cast<pipelink::IConnClient*>(base->GetInterface(lumera::ids::IKyBaseInterface)));
        break;
      case Kind::kNone:
        break;
    }
  } catch (...) {
  }
}
