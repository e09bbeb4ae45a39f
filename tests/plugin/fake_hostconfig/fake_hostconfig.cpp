// Test double of hostconfig.dll: a "productinfo" object whose behaviour the test picks
// through the environment variable LUMERA_FAKE_HOSTCONFIG, and a journal of the calls made.
#include <windows.h>

#include <cwchar>
#include <string>

#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"

namespace {

std::wstring g_journal;

std::uint32_t Note(const wchar_t* call) {
  g_journal += call;
  return 0;
}

std::wstring Mode() {
  wchar_t value[64] = {};
  ::GetEnvironmentVariableW(L"LUMERA_FAKE_HOSTCONFIG", value, 64);
  return value;
}

class FakeProductInfo final : public IProductInfo {
 public:
  void* GetInterface(const GUID& iid) override {
    if (KyIsEqualId(iid, lumera::ids::IKyBaseInterface) || KyIsEqualId(iid, lumera::ids::IServPlugin)) {
      return static_cast<IProductInfo*>(this);
    }
    if (KyIsEqualId(iid, lumera::ids::HostConfigProductInfo) && Mode() != L"no-interface") {
      return static_cast<IProductInfo*>(this);
    }
    return nullptr;
  }
  std::uint32_t Init(IServMain* host) override { return Note(host == nullptr ? L"init(null);" : L"init(host);"); }
  std::uint32_t UnInit() override { return Note(L"uninit;"); }
  std::uint32_t Stop() override { return Note(L"stop;"); }
  std::uint32_t Start() override {
    Note(L"start;");
    if (Mode() != L"start-fails") return 0;
    ::SetLastError(ERROR_SERVICE_DISABLED);
    return ERROR_SERVICE_DISABLED;
  }
  const wchar_t* GetItem(std::uint32_t, const wchar_t*) override { return L"C:\\Agent"; }
  const wchar_t* GetFolder(std::uint32_t kind, const wchar_t* name) override {
    return kind == lumera::kFolderKindCommon && name && std::wcscmp(name, L"common") == 0 ? L"C:\\Common" : nullptr;
  }
};

}  // namespace

extern "C" std::uint32_t __cdecl KyCreateObject(const wchar_t* name, const GUID* iid, void** out) {
  g_journal += std::wstring(L"create(") + (name ? name : L"") + L");";
  *out = nullptr;
  if (Mode() == L"create-fails") {
    ::SetLastError(ERROR_ACCESS_DENIED);
    return ERROR_ACCESS_DENIED;
  }
  if (Mode() == L"create-fails-silently") {
    ::SetLastError(0);
    return 1;
  }
  *out = (new FakeProductInfo())->GetInterface(*iid);
  return 0;
}

extern "C" void __cdecl KyDestroyObject(const wchar_t* name, void* object) {
  g_journal += std::wstring(L"destroy(") + (name ? name : L"") + L");";
  delete static_cast<FakeProductInfo*>(static_cast<IProductInfo*>(object));
}

// Copies the journal of calls into the buffer and clears it.
extern "C" void __cdecl FakeHostConfigJournal(wchar_t* buffer, std::uint32_t size) {
  std::wcsncpy(buffer, g_journal.c_str(), size - 1);
  buffer[size - 1] = L'\0';
  g_journal.clear();
}
