// A user's hive as a file: what stageduser.exe logoff saves from HKEY_USERS\<SID> and
// HKEY_USERS\<SID>_Classes and logon loads back, because keys for another SID live under Wine
// only as long as the wineserver. A pure codec (bytes in, image or refusal out): nothing here
// touches the registry or the file system.
//
// Layout, little-endian:
//   header  "LUMHIVE1" | u32 version (1) | u32 records | u64 body bytes | u64 FNV-1a-64 of the body
//   body    records, the first one the SID:
//     0 sid    u32 chars, UTF-16 text
//     1 key    u8 root (0 the user's hive, 1 its classes) | u32 chars, path below the root ("" the root)
//     2 value  u32 chars, name | u32 type | u32 bytes, data       (belongs to the key record before it)
//     3 link   u8 root | u32 chars, path | u32 chars, target ("\Registry\User\<SID>...")
// Every length is checked against what is left and against the limits below before anything
// is allocated, and a file is taken whole or refused whole. A link may point only into the
// user's own hive and no key may lie below a link, so loading a file writes nowhere else.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace winestandins::hive {

inline constexpr char kMagic[8] = {'L', 'U', 'M', 'H', 'I', 'V', 'E', '1'};
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::size_t kHeaderBytes = 32;
inline constexpr std::size_t kMaxFileBytes = 64u * 1024 * 1024;
inline constexpr std::uint32_t kMaxRecords = 1000000;
inline constexpr std::uint32_t kMaxPathChars = 32767;     // a registry path as one UNICODE_STRING
inline constexpr std::uint32_t kMaxKeyNameChars = 255;    // one component of a key path
inline constexpr std::uint32_t kMaxValueNameChars = 16383;
inline constexpr std::uint32_t kMaxValueBytes = 1024 * 1024;
inline constexpr std::uint32_t kMaxSidChars = 184;
inline constexpr wchar_t kLinkTargetPrefix[] = L"\\Registry\\User\\";  // followed by the hive's SID

enum class Root : std::uint8_t { kUser = 0, kClasses = 1 };

struct Value {
  std::wstring name;  // empty: the key's default value
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
  bool operator==(const Value&) const = default;
};

struct Key {
  Root root = Root::kUser;
  std::wstring path;        // below the root, components joined by '\'; empty for the root itself
  std::vector<Value> values;
  std::wstring linkTarget;  // non-empty: a registry link to this target, with no values of its own
  bool operator==(const Key&) const = default;
};

// A parent always comes before its children.
struct HiveImage {
  std::wstring sid;
  std::vector<Key> keys;
  bool operator==(const HiveImage&) const = default;
};

// FNV-1a, 64 bits, over the bytes.
std::uint64_t Checksum(const std::uint8_t* data, std::size_t size);

// True for a path of key names of 1-255 characters joined by single backslashes, without NULs;
// the empty path is the root.
bool IsKeyPath(const std::wstring& path);

// The file's bytes; false, `out` untouched, when the image breaks a limit above or the rules
// the decoder checks (a link with values or out of the hive, a key below a link, a SID that is
// not one).
[[nodiscard]] bool EncodeHive(const HiveImage& image, std::vector<std::uint8_t>& out);

// The image of a file's bytes; false with a one-line `reason`, `image` untouched, for anything
// but a whole, well-formed file within the limits.
[[nodiscard]] bool DecodeHive(const std::uint8_t* data, std::size_t size, HiveImage& image, std::string& reason);

}  // namespace winestandins::hive
