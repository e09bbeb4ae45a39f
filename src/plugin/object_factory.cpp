#include "plugin/object_factory.h"

#include <cwchar>
#include <new>

#include "boottime/comm/boottime_comm.h"
#include "boottime/comm/boottime_comm_client.h"
#include "common/guard.h"
#include "common/log.h"
#include "lumera/interface_ids.h"
#include "plugin/boottime_plugin.h"

namespace {

constexpr wchar_t kCreate[] = L"KyCreateObject";
constexpr wchar_t kDestroy[] = L"KyDestroyObject";

enum class ObjectKind { kNone, kBootTime, kComm, kCommClient };

ObjectKind KindOf(const wchar_t* name) {
  if (_wcsicmp(name, L"boottime") == 0) return ObjectKind::kBootTime;
  if (_wcsicmp(name, L"boottimecomm") == 0) return ObjectKind::kComm;
  if (_wcsicmp(name, L"boottimecommclient") == 0) return ObjectKind::kCommClient;
  return ObjectKind::kNone;
}

void LogName(const wchar_t* function, const wchar_t* name) {
  logging::CLogStream(logging::kLevelDebug, function) << L"obj name = " << (name ? name : L"nullptr");
}

// The plug-in is destroyed by running its destructor explicitly and freeing the memory;
// the other two through their virtual deleting destructors.
void DestroyBootTime(boottime::CBootTimePlugin* plugin) {
  plugin->~CBootTimePlugin();
  ::operator delete(plugin);
}

// The host may hold any interface of an object; its IKyBaseInterface answer is the one
// pointer from which the object itself is recovered.
void Destroy(ObjectKind kind, IKyBaseInterface* anyInterface) {
  void* self = anyInterface->GetInterface(lumera::ids::IKyBaseInterface);
  if (self == nullptr) return;
  switch (kind) {
    case ObjectKind::kBootTime:
      DestroyBootTime(static_cast<boottime::CBootTimePlugin*>(static_cast<boottime::IBootTime*>(self)));
      break;
    case ObjectKind::kComm:
      delete static_cast<boottime::CBootTimeComm*>(static_cast<boottime::IBootTimeComm*>(self));
      break;
    case ObjectKind::kCommClient:
      delete static_cast<boottime::CBootTimeCommClient*>(static_cast<boottime::IBootTimeCommClient*>(self));
      break;
    case ObjectKind::kNone:
      break;
  }
}

IKyBaseInterface* Construct(ObjectKind kind) {
  switch (kind) {
    case ObjectKind::kBootTime: {
      void* memory = ::operator new(sizeof(boottime::CBootTimePlugin), std::nothrow);
      if (memory == nullptr) return nullptr;
      return static_cast<boottime::IBootTime*>(new (memory) boottime::CBootTimePlugin());
    }
    case ObjectKind::kComm:
      return static_cast<boottime::IBootTimeComm*>(new (std::nothrow) boottime::CBootTimeComm());
    case ObjectKind::kCommClient:
      return static_cast<boottime::IBootTimeCommClient*>(new (std::nothrow) boottime::CBootTimeCommClient());
    case ObjectKind::kNone:
      break;
  }
  return nullptr;
}

}  // namespace

extern "C" std::uint32_t __cdecl KyCreateObject(const wchar_t* name, const GUID* iid, void** out) {
  return ky::Guarded(L"plugin::KyCreateObject", ky::kGeneralFailure, ky::kOutOfMemory, [&]() -> std::uint32_t {
    KY_TRACE(kCreate);
    LogName(kCreate, name);
    if (out == nullptr) return ERROR_INVALID_DATA;
    *out = nullptr;
    if (name == nullptr) return ERROR_INVALID_DATA;
    const ObjectKind kind = KindOf(name);
    if (kind == ObjectKind::kNone) return ERROR_NOT_FOUND;
    IKyBaseInterface* object = Construct(kind);
    if (object == nullptr) return ERROR_OUTOFMEMORY;
    GUID wanted{};
    if (iid != nullptr) wanted = *iid;
    *out = object->GetInterface(wanted);
    if (*out == nullptr) {
      Destroy(kind, object);
      return ERROR_NOT_FOUND;
    }
    return 0;
  });
}

extern "C" void __cdecl KyDestroyObject(const wchar_t* name, void* object) {
  ky::GuardedVoid(L"plugin::KyDestroyObject", [&] {
    KY_TRACE(kDestroy);
    LogName(kDestroy, name);
    if (object == nullptr) {
      logging::Write(logging::kLevelDebug, kDestroy, L"null instance");
      return;
    }
    if (name == nullptr) return;
    Destroy(KindOf(name), static_cast<IKyBaseInterface*>(object));
  });
}
