// CFileVersionInfo over version.dll.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <new>

#include "lumera/kyutils.h"

namespace {

constexpr DWORD kFallbackTables[] = {0x040904B0, 0x040904E4};
constexpr std::size_t kQueryChars = 64;

void TableName(DWORD languageCodePage, wchar_t (&out)[9]) {
  std::swprintf(out, 9, L"%08lx", static_cast<unsigned long>(languageCodePage));
}

bool HasTable(const void* data, const wchar_t* table) {
  wchar_t query[kQueryChars];
  std::swprintf(query, kQueryChars, L"\\StringFileInfo\\%ls", table);
  void* block = nullptr;
  UINT length = 0;
  return ::VerQueryValueW(data, query, &block, &length) != FALSE && block != nullptr;
}

}  // namespace

CFileVersionInfo::CFileVersionInfo() noexcept : data_(nullptr), table_{} {}

CFileVersionInfo::~CFileVersionInfo() { Reset(); }

void CFileVersionInfo::Reset() noexcept {
  delete[] static_cast<BYTE*>(data_);
  data_ = nullptr;
  table_[0] = L'\0';
}

bool CFileVersionInfo::Create(const wchar_t* path) noexcept {
  Reset();
  if (path == nullptr || *path == L'\0') {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  DWORD ignored = 0;
  const DWORD size = ::GetFileVersionInfoSizeW(path, &ignored);
  if (size == 0) return false;
  auto* data = new (std::nothrow) BYTE[size];
  if (data == nullptr) {
    ::SetLastError(ERROR_OUTOFMEMORY);
    return false;
  }
  if (!::GetFileVersionInfoW(path, 0, size, data)) {
    const DWORD error = ::GetLastError();
    delete[] data;
    ::SetLastError(error);
    return false;
  }
  data_ = data;

  void* translations = nullptr;
  UINT bytes = 0;
  if (::VerQueryValueW(data_, L"\\VarFileInfo\\Translation", &translations, &bytes) && translations != nullptr &&
      bytes >= 2 * sizeof(WORD)) {
    const auto* pair = static_cast<const WORD*>(translations);
    TableName((static_cast<DWORD>(pair[0]) << 16) | pair[1], table_);
    if (HasTable(data_, table_)) return true;
  }
  for (DWORD fallback : kFallbackTables) {
    TableName(fallback, table_);
    if (HasTable(data_, table_)) return true;
  }
  table_[0] = L'\0';
  return true;
}

const wchar_t* CFileVersionInfo::GetString(const wchar_t* name) const noexcept {
  if (data_ == nullptr || table_[0] == L'\0' || name == nullptr) return nullptr;
  wchar_t query[kQueryChars];
  if (std::swprintf(query, kQueryChars, L"\\StringFileInfo\\%ls\\%ls", table_, name) < 0) return nullptr;
  void* text = nullptr;
  UINT length = 0;
  if (!::VerQueryValueW(data_, query, &text, &length) || text == nullptr) return nullptr;
  return static_cast<const wchar_t*>(text);
}

const wchar_t* CFileVersionInfo::GetCompanyName() const noexcept { return GetString(L"CompanyName"); }
const wchar_t* CFileVersionInfo::GetProductName() const noexcept { return GetString(L"ProductName"); }
const wchar_t* CFileVersionInfo::GetFileDescription() const noexcept { return GetString(L"FileDescription"); }
