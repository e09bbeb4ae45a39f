#include "common/text_convert.h"

#include <windows.h>

#include <climits>

namespace ky {

std::wstring Utf8ToWide(std::string_view utf8) {
  if (utf8.empty() || utf8.size() > static_cast<std::size_t>(INT_MAX)) return {};
  const int size = static_cast<int>(utf8.size());
  const int n = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
  std::wstring out(static_cast<std::size_t>(n > 0 ? n : 0), L'\0');
  if (n > 0) ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, out.data(), n);
  return out;
}

std::string WideToUtf8(std::wstring_view wide) {
  if (wide.empty() || wide.size() > static_cast<std::size_t>(INT_MAX)) return {};
  const int size = static_cast<int>(wide.size());
  const int n = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
  if (n > 0) ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, out.data(), n, nullptr, nullptr);
  return out;
}

}  // namespace ky
