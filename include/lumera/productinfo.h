// The product-information object: answered by the host's "productinfo" plug-in and by
// hostconfig.dll's "productinfo" object alike. Returned strings stay valid, unchanged, for
// the life of the object.
#pragma once

#include <string>

#include "lumera/ky_base.h"

struct IProductInfo : IServPlugin {
  // Slot 5: a product item by number (e.g. 422 with "Desktop": the agent path); null if unknown.
  virtual const wchar_t* GetItem(std::uint32_t item, const wchar_t* argument) = 0;
  // Slot 6: a folder by kind; (2, "common") is the product's common data folder. Null if unknown.
  virtual const wchar_t* GetFolder(std::uint32_t kind, const wchar_t* name) = 0;
};

namespace lumera {
// The name the host's plug-in and hostconfig.dll's object answer to.
inline constexpr wchar_t kProductInfoName[] = L"productinfo";
inline constexpr std::uint32_t kFolderKindCommon = 2;
inline constexpr std::uint32_t kItemAgentPath = 422;

// How configuration files name an answer: "<number>:<name>", e.g. "2:common".
inline std::wstring ProductInfoKey(std::uint32_t number, const wchar_t* name) {
  return std::to_wstring(number) + L":" + (name ? name : L"");
}
}  // namespace lumera
