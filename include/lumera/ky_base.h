// Host ABI shared by the module, the host and every sibling library.
//
// Objects are handed out by a library's exported KyCreateObject and taken back by
// KyDestroyObject under the same name. There is no reference counting: an interface
// pointer stays valid until its object is destroyed. Every method returns a 32-bit
// Windows error code (0 = success) unless stated otherwise and never throws.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>

// Interface identifiers are compared as two 64-bit halves.
inline bool KyIsEqualId(const GUID& a, const GUID& b) noexcept {
  std::uint64_t ha[2];
  std::uint64_t hb[2];
  std::memcpy(ha, &a, sizeof ha);
  std::memcpy(hb, &b, sizeof hb);
  return ha[0] == hb[0] && ha[1] == hb[1];
}

// The body of a GetInterface: `object` seen as `Interface` when `iid` is one of `answered`,
// otherwise null.
template <class Interface, class Object>
void* KyInterfaceFor(Object* object, const GUID& iid, std::initializer_list<GUID> answered) noexcept {
  for (const GUID& id : answered) {
    if (KyIsEqualId(iid, id)) return static_cast<Interface*>(object);
  }
  return nullptr;
}

struct IServMain;

// Slot 0 of every object handed across a library boundary.
struct IKyBaseInterface {
  // Returns this object's pointer for the identifier it answers, otherwise null.
  virtual void* GetInterface(const GUID& iid) = 0;
};

// Lifecycle driven by the host: Init -> Start -> Stop -> UnInit; Start may follow Stop again.
struct IServPlugin : IKyBaseInterface {
  virtual std::uint32_t Init(IServMain* host) = 0;  // slot 1
  virtual std::uint32_t UnInit() = 0;               // slot 2
  virtual std::uint32_t Start() = 0;                // slot 3
  virtual std::uint32_t Stop() = 0;                 // slot 4
};

// Lookup of the host's other plug-ins by name. Every successful GetPlugin must be
// balanced by one ReleasePlugin with the same name.
struct IPlgComponentManager {
  // Writes the plug-in's interface for `iid` to *out (null on failure).
  virtual std::uint32_t GetPlugin(const wchar_t* name, const GUID& iid, void** out) = 0;  // slot 0
  virtual std::uint32_t ReleasePlugin(const wchar_t* name) = 0;                           // slot 1
};

// A unit of work posted to a serial execution; the queue calls Execute once, then Release.
struct EqWorkItem {
  virtual ~EqWorkItem() = default;  // slot 0
  virtual void Release() = 0;       // slot 1: deletes the item
  virtual void Execute() = 0;       // slot 2
};

// Work items posted to one serial execution run one at a time, in posting order, on a
// host thread. Post takes ownership of the item whether or not it succeeds.
struct ISerialExecution {
  virtual std::uint32_t Post(const wchar_t* name, EqWorkItem* item) = 0;
};

struct IEventQueue {
  virtual std::uint32_t createSerialExecution(ISerialExecution** out) = 0;
  // Waits for the running item, drops items not yet started, and frees the execution.
  virtual std::uint32_t destroySerialExecution(ISerialExecution* execution) = 0;
};

// The host as a plug-in sees it. Pointers it returns live as long as the host.
struct IServMain {
  virtual const wchar_t* GetHostName() = 0;                   // slot 0
  virtual IPlgComponentManager* GetComponentManager() = 0;    // slot 1
  virtual IEventQueue* GetEventQueue() = 0;                   // slot 2
};

// Exports of every library that hands out objects.
using KyCreateObjectFn = std::uint32_t(__cdecl*)(const wchar_t* name, const GUID* iid, void** out);
using KyDestroyObjectFn = void(__cdecl*)(const wchar_t* name, void* object);
