// SHA-256 of a file's content through Windows' own CNG provider.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>

namespace kyfastdb {

using Digest = std::array<std::uint8_t, 32>;

// Hashes everything `file` holds from its current position on; 0 or a Windows error code.
[[nodiscard]] std::uint32_t HashFile(HANDLE file, Digest& digest);

// Hashes `size` bytes in memory; 0 or an error code.
[[nodiscard]] std::uint32_t HashBytes(const void* data, std::size_t size, Digest& digest);

}  // namespace kyfastdb
