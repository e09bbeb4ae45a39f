#include "common/json_file.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

#include "common/text_convert.h"

namespace ky {
namespace {

// True when no array or object of `text` lies deeper than `limit`; brackets inside strings
// do not count.
bool NestingWithin(const char* first, const char* last, std::size_t limit) {
  std::size_t depth = 0;
  bool inString = false;
  for (const char* p = first; p < last; ++p) {
    const char c = *p;
    if (inString) {
      if (c == '\\' && p + 1 < last) {
        ++p;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

}  // namespace

bool ParseJsonText(const char* first, const char* last, picojson::value& out, std::string& error, std::size_t maxDepth) {
  out = picojson::value();
  error.clear();
  if (!NestingWithin(first, last, maxDepth)) {
    error = "nested deeper than " + std::to_string(maxDepth) + " levels";
    return false;
  }
  picojson::value parsed;
  try {
    picojson::parse(parsed, first, last, &error);
  } catch (const std::exception&) {
    // The parser throws rather than fails for a number such as 1e999.
    error = "number out of range";
  }
  if (!error.empty()) return false;
  out = std::move(parsed);
  return true;
}

JsonReadResult ReadJsonFile(const std::wstring& path, picojson::value& out, std::string& error, std::size_t maxBytes) {
  out = picojson::value();
  std::ifstream file(std::filesystem::path(path), std::ios::binary | std::ios::ate);
  if (!file) return JsonReadResult::kCannotOpen;
  const std::streamoff size = file.tellg();
  if (size < 0) return JsonReadResult::kCannotOpen;
  if (static_cast<std::uint64_t>(size) > maxBytes) return JsonReadResult::kTooLarge;
  file.seekg(0);
  std::string text(static_cast<std::size_t>(size), '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (!ParseJsonText(text.data(), text.data() + text.size(), out, error)) return JsonReadResult::kParseError;
  return JsonReadResult::kOk;
}

bool WriteTextFile(const std::wstring& path, const std::string& text) {
  std::ofstream file(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
  if (!file) return false;
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  file.close();
  return !file.fail();
}

std::map<std::wstring, std::wstring> StringMembers(const picojson::value& object) {
  std::map<std::wstring, std::wstring> members;
  if (!object.is<picojson::object>()) return members;
  for (const auto& [key, value] : object.get<picojson::object>()) {
    if (value.is<std::string>()) members[Utf8ToWide(key)] = Utf8ToWide(value.get<std::string>());
  }
  return members;
}

}  // namespace ky
