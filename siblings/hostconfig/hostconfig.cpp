// hostconfig.dll: the product's configuration library. Its "productinfo" object answers
// folder and item queries from "hostconfig.json" beside the library, falling back to
// folders under ProgramData.
#include <windows.h>
#include <shlobj.h>

#include <cwchar>
#include <map>
#include <new>
#include <string>

#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"
#include "common/json_file.h"
#include "common/module_library.h"
#include "picojson.h"

namespace {

constexpr std::size_t kMaxConfigBytes = 64 * 1024;

class ProductInfo final : public IProductInfo {
 public:
  void* GetInterface(const GUID& iid) override {
    return KyInterfaceFor<IProductInfo>(
        this, iid, {lumera::ids::IKyBaseInterface, lumera::ids::IServPlugin, lumera::ids::HostConfigProductInfo});
  }
  std::uint32_t Init(IServMain*) override {
    Load();
    return 0;
  }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }

  const wchar_t* GetItem(std::uint32_t item, const wchar_t* argument) override {
    auto it = items_.find(lumera::ProductInfoKey(item, argument));
    return it == items_.end() ? nullptr : it->second.c_str();
  }
  const wchar_t* GetFolder(std::uint32_t kind, const wchar_t* name) override {
    auto it = folders_.find(lumera::ProductInfoKey(kind, name));
    return it == folders_.end() ? nullptr : it->second.c_str();
  }

 private:
  // Keys of "folders" and "items" in hostconfig.json are "<number>:<name>", e.g. "2:common".
  void Load() {
    wchar_t programData[MAX_PATH] = {};
    if (::SHGetSpecialFolderPathW(nullptr, programData, CSIDL_COMMON_APPDATA, FALSE)) {
      folders_[lumera::ProductInfoKey(lumera::kFolderKindCommon, L"common")] = std::wstring(programData) + L"\\Nexalon\\Lumera";
      items_[lumera::ProductInfoKey(lumera::kItemAgentPath, L"Desktop")] = std::wstring(programData) + L"\\Nexalon\\Lumera\\Agent";
    }
    picojson::value root;
    std::string error;
    if (ky::ReadJsonFile(ky::ThisModuleFolder() + L"hostconfig.json", root, error, kMaxConfigBytes) != ky::JsonReadResult::kOk) return;
    for (const auto& [key, value] : ky::StringMembers(root.get("folders"))) folders_[key] = value;
    for (const auto& [key, value] : ky::StringMembers(root.get("items"))) items_[key] = value;
  }

  std::map<std::wstring, std::wstring> folders_;
  std::map<std::wstring, std::wstring> items_;
};

}  // namespace

extern "C" std::uint32_t __cdecl KyCreateObject(const wchar_t* name, const GUID* iid, void** out) {
  try {
    if (out == nullptr) return ERROR_INVALID_DATA;
    *out = nullptr;
    if (name == nullptr || iid == nullptr) return ERROR_INVALID_DATA;
    if (_wcsicmp(name, L"productinfo") != 0) return ERROR_NOT_FOUND;
    auto* object = new (std::nothrow) ProductInfo();
    if (object == nullptr) return ERROR_OUTOFMEMORY;
    *out = object->GetInterface(*iid);
    if (*out == nullptr) {
      delete object;
      return ERROR_NOT_FOUND;
    }
    return 0;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

extern "C" void __cdecl KyDestroyObject(const wchar_t* name, void* object) {
  if (name == nullptr || object == nullptr || _wcsicmp(name, L"productinfo") != 0) return;
  auto* base = static_cast<IKyBaseInterface*>(object);
  delete static_cast<ProductInfo*>(static_cast<IProductInfo*>(base->GetInterface(lumera::ids::IKyBaseInterface)));
}
