// Bounded reading of the module's JSON files, which live in folders a user can write: nothing
// larger than the limit is read, and nothing read is trusted. They are written whole through
// common/safe_file.h.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "picojson.h"

namespace ky {

inline constexpr std::size_t kMaxJsonFileBytes = 16 * 1024 * 1024;
// Arrays and objects nested deeper than this are refused before parsing: the parser and the
// value it builds recurse once per level.
inline constexpr std::size_t kMaxJsonDepth = 100;

enum class JsonReadResult { kOk, kCannotOpen, kTooLarge, kParseError };

// Reads the whole file into `bytes`, sharing it with writers that replace it meanwhile.
// kOk, kCannotOpen, or kTooLarge when it holds more than `maxBytes`; `bytes` is empty on failure.
[[nodiscard]] JsonReadResult ReadFileBytes(const std::wstring& path, std::string& bytes,
                                           std::size_t maxBytes = kMaxJsonFileBytes);

// Parses JSON text as every reader does: false, with the message in `error` and `out` null,
// for text that is not a document, nests deeper than `maxDepth`, or holds a number beyond
// the double range.
[[nodiscard]] bool ParseJsonText(const char* first, const char* last, picojson::value& out, std::string& error,
                                 std::size_t maxDepth = kMaxJsonDepth);

// Reads the whole file (what it holds, never more than `maxBytes`) and parses it into `out`
// with ParseJsonText. On kParseError `error` holds the message; on any failure `out` is null.
[[nodiscard]] JsonReadResult ReadJsonFile(const std::wstring& path, picojson::value& out, std::string& error,
                                          std::size_t maxBytes = kMaxJsonFileBytes);

// The string members of a JSON object, converted to wide text; other members are skipped.
std::map<std::wstring, std::wstring> StringMembers(const picojson::value& object);

}  // namespace ky
