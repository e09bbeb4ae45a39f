// hostconfig.dll: the product's configuration library. Its "productinfo" object answers
// folder and item queries from "hostconfig.json" beside the library, falling back to
// folders under ProgramData.
#include <windows.h>
#include <shlobj.h>

#include <cwchar>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <string>

#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"
#include "picojson.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace {

constexpr std::size_t kMaxConfigBytes = 64 * 1024;

std::wstring Widen(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int n = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(static_cast<std::size_t>(n), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), out.data(), n);
  return out;
}

std::wstring LibraryFolder() {
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path, MAX_PATH);
  std::wstring folder(path);
  folder.resize(folder.find_last_of(L'\\') + 1);
  return folder;
}

class ProductInfo final : public IProductInfo {
 public:
  void* GetInterface(const GUID& iid) override {
    if (KyIsEqualId(iid, lumera::ids::IKyBaseInterface) || KyIsEqualId(iid, lumera::ids::IServPlugin) ||
        KyIsEqualId(iid, lumera::ids::HostConfigProductInfo)) {
      return static_cast<IProductInfo*>(this);
    }
    return nullptr;
  }
  std::uint32_t Init(IServMain*) override {
    Load();
    return 0;
  }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }

  const wchar_t* GetItem(std::uint32_t item, const wchar_t* argument) override {
    auto it = items_.find(Key(item, argument));
    return it == items_.end() ? nullptr : it->second.c_str();
  }
  const wchar_t* GetFolder(std::uint32_t kind, const wchar_t* name) override {
    auto it = folders_.find(Key(kind, name));
    return it == folders_.end() ? nullptr : it->second.c_str();
  }

 private:
  static std::wstring Key(std::uint32_t number, const wchar_t* name) {
    return std::to_wstring(number) + L":" + (name ? name : L"");
  }

  // Keys of "folders" and "items" in hostconfig.json are "<number>:<name>", e.g. "2:common".
  void Load() {
    wchar_t programData[MAX_PATH] = {};
    if (::SHGetSpecialFolderPathW(nullptr, programData, CSIDL_COMMON_APPDATA, FALSE)) {
      folders_[Key(lumera::kFolderKindCommon, L"common")] = std::wstring(programData) + L"\\Nexalon\\Lumera";
    }
    std::ifstream file(std::filesystem::path(LibraryFolder() + L"hostconfig.json"), std::ios::binary);
    if (!file) return;
    std::string text(kMaxConfigBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    const auto got = static_cast<std::size_t>(file.gcount());
    if (got > kMaxConfigBytes) return;  // not a configuration file this library wrote
    text.resize(got);
    picojson::value root;
    if (!picojson::parse(root, text).empty() || !root.is<picojson::object>()) return;
    ReadSection(root, "folders", folders_);
    ReadSection(root, "items", items_);
  }

  static void ReadSection(const picojson::value& root, const char* name, std::map<std::wstring, std::wstring>& into) {
    const picojson::value& section = root.get(name);
    if (!section.is<picojson::object>()) return;
    for (const auto& [key, value] : section.get<picojson::object>()) {
      if (value.is<std::string>()) into[Widen(key)] = Widen(value.get<std::string>());
    }
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
