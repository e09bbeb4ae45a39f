// The bare file calls a benchmark's baseline is made of: one CreateFile, one ReadFile or
// WriteFile of the whole text, nothing the module adds (no lock, no temporary, no flush).
#pragma once

#include <windows.h>

#include <string>

#include "common/unique_handle.h"

namespace bench {

inline bool WriteWhole(const std::wstring& path, const std::string& text) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  return file && ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
         written == text.size();
}

inline bool ReadWhole(const std::wstring& path, std::string& text) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  LARGE_INTEGER size{};
  if (!file || !::GetFileSizeEx(file.get(), &size)) return false;
  text.resize(static_cast<std::size_t>(size.QuadPart));
  DWORD read = 0;
  return ::ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr) && read == text.size();
}

}  // namespace bench
