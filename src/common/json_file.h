// Bounded reading and whole-file writing of the module's JSON files, which live in folders
// a user can write: nothing larger than the limit is read, and nothing read is trusted.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "picojson.h"

namespace ky {

inline constexpr std::size_t kMaxJsonFileBytes = 16 * 1024 * 1024;

enum class JsonReadResult { kOk, kCannotOpen, kTooLarge, kParseError };

// Parses JSON text as every file reader does: false, with the parser's message in `error` and
// `out` null, for text that is not a document (a number beyond the double range included).
[[nodiscard]] bool ParseJsonText(const char* first, const char* last, picojson::value& out, std::string& error);

// Reads the whole file and parses it into `out`. On kParseError `error` holds the parser's
// message; on any failure `out` is left null.
[[nodiscard]] JsonReadResult ReadJsonFile(const std::wstring& path, picojson::value& out, std::string& error,
                                          std::size_t maxBytes = kMaxJsonFileBytes);

// Replaces the file with `text`. Returns false when it cannot be opened, written or closed.
[[nodiscard]] bool WriteTextFile(const std::wstring& path, const std::string& text);

// The string members of a JSON object, converted to wide text; other members are skipped.
std::map<std::wstring, std::wstring> StringMembers(const picojson::value& object);

}  // namespace ky
