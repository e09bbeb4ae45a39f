// Loads the "productinfo" object out of hostconfig.dll beside this module and keeps it,
// with the library, in module-wide storage while in use.
#pragma once

#include <cstdint>

#include "lumera/productinfo.h"

namespace plugin {

inline constexpr std::uint32_t kErrorProductInfo = 632;  // ERROR_INVALID_FIELD_IN_PARAMETER_LIST

// Returns the product-information interface, loading and starting it on first use, or null
// with *error set to the failing call's code (632 when it left none). Threads may race the
// first call; one of them loads.
[[nodiscard]] IProductInfo* AcquireProductInfo(std::uint32_t* error = nullptr);

// Stops and destroys the object and frees the library; a later Acquire loads again.
void ReleaseProductInfo();

}  // namespace plugin
