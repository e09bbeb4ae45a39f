// UTF-8 <-> UTF-16 at the boundary where JSON text meets the module's wide strings.
#pragma once

#include <string>
#include <string_view>

namespace ky {

// Invalid sequences become U+FFFD; never fails.
std::wstring Utf8ToWide(std::string_view utf8);
std::string WideToUtf8(std::wstring_view wide);

}  // namespace ky
