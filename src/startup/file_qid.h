// CFileQID: a file's identity ("QID") from the product's file-reputation library
// KYFastDB.dll: the SHA-256 of its content as 64 lower-case hexadecimal digits.
#pragma once

#include <cstdint>
#include <string>

#include "common/module_library.h"
#include "lumera/kyfastdb.h"

namespace startup {

class CFileQID {
 public:
  // The process-wide instance, created and initialised once, on first use, under a spin lock.
  static CFileQID& Instance();

  // An instance of its own over `libraryName`; Init is left to the caller.
  explicit CFileQID(std::wstring libraryName = kyfastdb::kLibraryName) : libraryName_(std::move(libraryName)) {}
  CFileQID(const CFileQID&) = delete;
  CFileQID& operator=(const CFileQID&) = delete;

  // Loads the library and binds "FastDBGetFileData"; false, logged, when either fails.
  [[nodiscard]] bool Init();

  // The QID of the file; false, `qid` untouched, for an empty path, an unbound library or a
  // failed lookup.
  [[nodiscard]] bool Get(const std::wstring& path, std::wstring& qid) const;

 private:
  std::wstring libraryName_;
  ky::ModuleLibrary library_;
  kyfastdb::FastDBGetFileDataFn getFileData_ = nullptr;
};

// The bytes as two lower-case hexadecimal digits each, in order.
std::wstring HexDigits(const std::uint8_t* bytes, std::size_t count);

}  // namespace startup
