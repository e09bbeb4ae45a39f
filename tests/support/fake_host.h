// A host for the one plug-in under test: its component manager gives only the plug-ins a test
// offers, by name and interface id, and counts what is held; any part can be withheld.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "lumera/ky_base.h"

namespace testsupport {

class FakeHost : public IServMain, public IPlgComponentManager {
 public:
  const wchar_t* GetHostName() override { return L"test"; }
  IPlgComponentManager* GetComponentManager() override { return withManager ? this : nullptr; }
  IEventQueue* GetEventQueue() override { return queue; }
  std::uint32_t GetPlugin(const wchar_t* name, const GUID& iid, void** out) override {
    const auto offer = offers_.find(name);
    const bool given = offer != offers_.end() && withheld.count(name) == 0 && KyIsEqualId(iid, offer->second.iid);
    *out = given ? offer->second.object : nullptr;
    if (!given) return missingCode;
    ++held[name];
    ++gets;
    return 0;
  }
  std::uint32_t ReleasePlugin(const wchar_t* name) override {
    --held[name];
    ++releases;
    return 0;
  }
  // `object` is the interface pointer itself, already cast to the interface `iid` names.
  void Offer(const wchar_t* name, const GUID& iid, void* object) { offers_[name] = {iid, object}; }

  bool withManager = true;
  std::set<std::wstring> withheld;  // offered, but refused while named here
  IEventQueue* queue = nullptr;
  std::uint32_t missingCode = ERROR_NOT_FOUND;
  std::map<std::wstring, int> held;
  int gets = 0;
  int releases = 0;

 private:
  struct Offered {
    GUID iid;
    void* object;
  };
  std::map<std::wstring, Offered> offers_;
};

}  // namespace testsupport
