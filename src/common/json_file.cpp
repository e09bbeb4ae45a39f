#include "common/json_file.h"

#include <windows.h>

#include <cstdint>

#include "common/text_convert.h"
#include "common/unique_handle.h"

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

JsonReadResult ReadFileBytes(const std::wstring& path, std::string& bytes, std::size_t maxBytes) {
  bytes.clear();
  // Sharing delete lets a writer replace the file while it is read: this reader keeps the old one.
  unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return JsonReadResult::kCannotOpen;
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file.get(), &size) || size.QuadPart < 0) return JsonReadResult::kCannotOpen;
  if (static_cast<std::uint64_t>(size.QuadPart) > maxBytes) return JsonReadResult::kTooLarge;
  std::string text(static_cast<std::size_t>(size.QuadPart), '\0');
  std::size_t filled = 0;
  while (filled < text.size()) {
    DWORD read = 0;
    if (!::ReadFile(file.get(), text.data() + filled, static_cast<DWORD>(text.size() - filled), &read, nullptr)) {
      return JsonReadResult::kCannotOpen;
    }
    if (read == 0) break;
    filled += read;
  }
  text.resize(filled);
  bytes = std::move(text);
  return JsonReadResult::kOk;
}

JsonReadResult ReadJsonFile(const std::wstring& path, picojson::value& out, std::string& error, std::size_t maxBytes) {
  out = picojson::value();
  std::string text;
  if (const JsonReadResult read = ReadFileBytes(path, text, maxBytes); read != JsonReadResult::kOk) return read;
  if (!ParseJsonText(text.data(), text.data() + text.size(), out, error)) return JsonReadResult::kParseError;
  return JsonReadResult::kOk;
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
