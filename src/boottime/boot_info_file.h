// "last_boot_time_information.json": the measured boot time and the start time of the system
// it belongs to, both kept as strings of decimal digits. The codec is pure; ReadBootInfoFile
// is the one reader of the file, shared by the monitor and the plug-in.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace boottime {

inline constexpr wchar_t kBootInfoFileName[] = L"last_boot_time_information.json";

struct BootInfoRecord {
  bool hasBootTime = false;                 // the key is there, whatever it holds
  std::optional<std::int32_t> bootTime;     // a whole decimal string within 32 bits
  std::optional<std::int64_t> systemStart;  // a whole decimal string within 64 bits
};

enum class BootInfoStatus { kOk, kCannotOpen, kTooLarge, kParseError, kNotAnObject };

// The record of `bytes`: kOk, kParseError with the parser's message in `error`, or
// kNotAnObject; `out` is reset first either way.
[[nodiscard]] BootInfoStatus DecodeBootInfo(std::string_view bytes, BootInfoRecord& out, std::string& error);
// The document for `systemStart` and `bootTime`.
std::string EncodeBootInfo(std::int64_t systemStart, std::int32_t bootTime);

// Reads and decodes the file at `path`: DecodeBootInfo's result, or kCannotOpen / kTooLarge.
[[nodiscard]] BootInfoStatus ReadBootInfoFile(const std::wstring& path, BootInfoRecord& out, std::string& error);

}  // namespace boottime
