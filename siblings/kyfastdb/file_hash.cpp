#include "file_hash.h"

#include <bcrypt.h>

#include <memory>
#include <vector>

namespace kyfastdb {
namespace {

constexpr DWORD kChunkBytes = 1024 * 1024;

bool Succeeded(NTSTATUS status) { return status >= 0; }

// The algorithm provider is opened once per process and kept: opening it costs more than
// hashing a small file.
BCRYPT_ALG_HANDLE Provider() {
  static BCRYPT_ALG_HANDLE provider = [] {
    BCRYPT_ALG_HANDLE handle = nullptr;
    if (!Succeeded(::BCryptOpenAlgorithmProvider(&handle, BCRYPT_SHA256_ALGORITHM, nullptr, 0))) return BCRYPT_ALG_HANDLE{};
    return handle;
  }();
  return provider;
}

class Hash {
 public:
  Hash() {
    BCRYPT_ALG_HANDLE provider = Provider();
    if (provider != nullptr && Succeeded(::BCryptCreateHash(provider, &hash_, nullptr, 0, nullptr, 0, 0))) ok_ = true;
  }
  ~Hash() {
    if (hash_ != nullptr) ::BCryptDestroyHash(hash_);
  }
  Hash(const Hash&) = delete;
  Hash& operator=(const Hash&) = delete;

  bool ok() const { return ok_; }
  bool Add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    while (size > 0) {
      const ULONG piece = size > kChunkBytes ? kChunkBytes : static_cast<ULONG>(size);
      if (!Succeeded(::BCryptHashData(hash_, const_cast<PUCHAR>(bytes), piece, 0))) return false;
      bytes += piece;
      size -= piece;
    }
    return true;
  }
  bool Finish(Digest& digest) {
    return Succeeded(::BCryptFinishHash(hash_, digest.data(), static_cast<ULONG>(digest.size()), 0));
  }

 private:
  BCRYPT_HASH_HANDLE hash_ = nullptr;
  bool ok_ = false;
};

}  // namespace

std::uint32_t HashFile(HANDLE file, Digest& digest) {
  Hash hash;
  if (!hash.ok()) return ERROR_GEN_FAILURE;
  // One buffer per thread, kept: a fresh megabyte per file costs a page fault per page.
  thread_local std::vector<std::uint8_t> buffer(kChunkBytes);
  for (;;) {
    DWORD read = 0;
    if (!::ReadFile(file, buffer.data(), kChunkBytes, &read, nullptr)) {
      const DWORD error = ::GetLastError();
      return error != 0 ? error : ERROR_READ_FAULT;
    }
    if (read == 0) break;
    if (!hash.Add(buffer.data(), read)) return ERROR_GEN_FAILURE;
  }
  return hash.Finish(digest) ? 0 : ERROR_GEN_FAILURE;
}

std::uint32_t HashBytes(const void* data, std::size_t size, Digest& digest) {
  Hash hash;
  if (!hash.ok() || !hash.Add(data, size) || !hash.Finish(digest)) return ERROR_GEN_FAILURE;
  return 0;
}

}  // namespace kyfastdb
