// Bounded reading and whole-file writing of the module's JSON files, which live in folders
// a user can write: nothing larger than the limit is read, and nothing read is trusted.
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

// Parses JSON text as every reader does: false, with the message in `error` and `out` null,
// for text that is not a document, nests deeper than `maxDepth`, or holds a number beyond
// the double range.
[[nodiscard]] bool ParseJsonText(const char* first, const char* last, picojson::value& out, std::string& error,
                                 std::size_t maxDepth = kMaxJsonDepth);

// Reads the whole file (what it holds, never more than `maxBytes`) and parses it into `out`
// with ParseJsonText. On kParseError `error` holds the message; on any failure `out` is null.
[[nodiscard]] JsonReadResult ReadJsonFile(const std::wstring& path, picojson::value& out, std::string& error,
                                          std::size_t maxBytes = kMaxJsonFileBytes);

// Replaces the file with `text`. Returns false when it cannot be opened, written or closed.
[[nodiscard]] bool WriteTextFile(const std::wstring& path, const std::string& text);

// The string members of a JSON object, converted to wide text; other members are skipped.
std::map<std::wstring, std::wstring> StringMembers(const picojson::value& object);

}  // namespace ky
