#include "lumera_dev/registry_text.h"

#include <iterator>

#include "common/unique_handle.h"

namespace lumera::dev {
namespace {

// Registry text may be stored without its terminating NUL, or with several.
std::wstring TextOf(const std::vector<BYTE>& data, DWORD bytes) {
  std::wstring text(reinterpret_cast<const wchar_t*>(data.data()), bytes / sizeof(wchar_t));
  const std::size_t end = text.find(L'\0');
  if (end != std::wstring::npos) text.resize(end);
  return text;
}

}  // namespace

std::wstring ReadRegistryText(HKEY root, const std::wstring& path, const wchar_t* value) {
  DWORD bytes = 0;
  constexpr DWORD kFlags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
  if (::RegGetValueW(root, path.c_str(), value, kFlags, nullptr, nullptr, &bytes) != ERROR_SUCCESS) return {};
  // The value may grow between the two calls; a few tries settle it.
  for (int attempt = 0; attempt < 4; ++attempt) {
    std::vector<BYTE> data(bytes + sizeof(wchar_t));
    DWORD size = static_cast<DWORD>(data.size());
    const LSTATUS status = ::RegGetValueW(root, path.c_str(), value, kFlags, nullptr, data.data(), &size);
    if (status == ERROR_SUCCESS) return TextOf(data, size);
    if (status != ERROR_MORE_DATA) return {};
    bytes = size;
  }
  return {};
}

std::vector<RegistryText> ReadRegistryTexts(HKEY root, const std::wstring& path) {
  std::vector<RegistryText> texts;
  ky::unique_hkey key;
  if (::RegOpenKeyExW(root, path.c_str(), 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS) return texts;
  DWORD nameChars = 0, dataBytes = 0;
  if (::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &nameChars,
                         &dataBytes, nullptr, nullptr) != ERROR_SUCCESS) {
    return texts;
  }
  std::vector<wchar_t> name(nameChars + 1);
  std::vector<BYTE> data(dataBytes + sizeof(wchar_t));
  int grown = 0;
  for (DWORD index = 0;; ++index) {
    DWORD nameSize = static_cast<DWORD>(name.size());
    DWORD dataSize = static_cast<DWORD>(data.size());
    DWORD type = 0;
    const LSTATUS status =
        ::RegEnumValueW(key.get(), index, name.data(), &nameSize, nullptr, &type, data.data(), &dataSize);
    if (status == ERROR_NO_MORE_ITEMS) break;
    if (status == ERROR_MORE_DATA && ++grown < 8) {
      // Written to while we read: grow and read this index again.
      name.resize(name.size() * 2 + 64);
      data.resize(data.size() * 2 + 256);
      --index;
      continue;
    }
    if (status != ERROR_SUCCESS) break;
    if (type != REG_SZ && type != REG_EXPAND_SZ) continue;
    texts.push_back({std::wstring(name.data(), nameSize), type, TextOf(data, dataSize)});
  }
  return texts;
}

std::wstring ComputerName() {
  wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD chars = static_cast<DWORD>(std::size(name));
  return ::GetComputerNameW(name, &chars) ? std::wstring(name, chars) : std::wstring();
}

}  // namespace lumera::dev
