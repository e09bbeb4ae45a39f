// kyutils.dll: the product's utility library, imported at link time. CFileVersionInfo reads
// the texts of a file's version resource.
//
// The class is exported as a class, so each compiler links the kyutils.dll built by that same
// compiler (MSVC and mingw-w64 name C++ members differently). It holds no C++ library types,
// so its layout is the same on both sides of the boundary.
#pragma once

#include <windows.h>

#if defined(KYUTILS_EXPORTS)
#define KYUTILS_API __declspec(dllexport)
#else
#define KYUTILS_API __declspec(dllimport)
#endif

class KYUTILS_API CFileVersionInfo {
 public:
  CFileVersionInfo() noexcept;
  ~CFileVersionInfo();
  CFileVersionInfo(const CFileVersionInfo&) = delete;
  CFileVersionInfo& operator=(const CFileVersionInfo&) = delete;

  // Reads the version resource of `path` and picks its string table: the first translation
  // listed under "\VarFileInfo\Translation", then 040904B0, then 040904E4. False, with any
  // earlier resource dropped, when the file has no version resource or cannot be read;
  // GetLastError() then holds the reason.
  bool Create(const wchar_t* path) noexcept;

  // The text of the chosen string table, valid until the next Create or destruction; null
  // when Create has not succeeded, no table was found or the table lacks the text.
  const wchar_t* GetCompanyName() const noexcept;
  const wchar_t* GetProductName() const noexcept;
  const wchar_t* GetFileDescription() const noexcept;
  const wchar_t* GetString(const wchar_t* name) const noexcept;

 private:
  void Reset() noexcept;

  void* data_;
  wchar_t table_[9];  // "040904b0"-style block name, empty when none
};
