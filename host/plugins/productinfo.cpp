// "productinfo": answers folder and item queries from the host configuration; the common
// data folder defaults to ProgramData\Nexalon\Lumera and the agent's to its Agent subfolder.
#include <string>

#include "host_plugin.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"

namespace host {
namespace {

class ProductInfoPlugin final : public InterfacePlugin<IProductInfo> {
 public:
  explicit ProductInfoPlugin(const HostConfig& config)
      : InterfacePlugin(lumera::ids::ProductInfoPlugin), config_(config) {
    folders_ = config_.folders;
    const std::wstring common = lumera::ProductInfoKey(lumera::kFolderKindCommon, L"common");
    if (folders_.find(common) == folders_.end()) folders_[common] = DefaultCommonFolder();
    items_ = config_.items;
    items_.emplace(lumera::ProductInfoKey(lumera::kItemAgentPath, L"Desktop"), DefaultAgentFolder());
  }

  const wchar_t* GetItem(std::uint32_t item, const wchar_t* argument) override {
    auto it = items_.find(lumera::ProductInfoKey(item, argument));
    return it == items_.end() ? nullptr : it->second.c_str();
  }
  const wchar_t* GetFolder(std::uint32_t kind, const wchar_t* name) override {
    auto it = folders_.find(lumera::ProductInfoKey(kind, name));
    return it == folders_.end() ? nullptr : it->second.c_str();
  }

 private:
  const HostConfig& config_;
  std::map<std::wstring, std::wstring> folders_;
  std::map<std::wstring, std::wstring> items_;
};

std::unique_ptr<HostPlugin> Make(HostContext& context) { return std::make_unique<ProductInfoPlugin>(context.config); }

}  // namespace
}  // namespace host

LUMERA_HOST_PLUGIN(L"productinfo", &host::Make);
