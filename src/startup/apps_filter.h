// CAppsFilter: the installation folders of the maker's own applications, as AppAgentDP.dll
// knows them; the startup manager never shows or touches an app whose key begins with one.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "lumera/productinfo.h"
#include "startup/app_agent_dp_dll.h"

namespace startup {

inline constexpr wchar_t kAgentPathNotInited[] = L"<error-interface-not-inited>";
inline constexpr std::size_t kMaxAppPathsChars = 1024 * 1024;

// Lower-cased as the run-time's tolower does it: ASCII letters only.
std::wstring LowerAscii(const std::wstring& text);

class CAppsFilter {
 public:
  // `productInfo` gives the host's product-information object, or null when there is none.
  using ProductInfoSource = std::function<IProductInfo*()>;

  explicit CAppsFilter(ProductInfoSource productInfo, std::wstring libraryName = appagentdp::kLibraryName)
      : productInfo_(std::move(productInfo)), dll_(std::move(libraryName)) {}

  // Rebuilds the set from the agent's "app_paths" values; every failure is logged and ends
  // the build with the paths gathered so far.
  void Init();
  // Adds the strings of a JSON array, lower-cased; anything else is logged and adds nothing.
  void AddPaths(const std::wstring& text);
  // True when the key, lower-cased, begins with one of the paths (an empty path matches all).
  [[nodiscard]] bool Matches(const std::wstring& key) const;

  const std::set<std::wstring>& Paths() const { return paths_; }

 private:
  std::wstring AgentPath() const;

  ProductInfoSource productInfo_;
  AppAgentDPDll dll_;
  std::set<std::wstring> paths_;
};

}  // namespace startup
