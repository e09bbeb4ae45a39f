#include "common/json_file.h"

#include <filesystem>
#include <fstream>

#include "common/text_convert.h"

namespace ky {

bool ParseJsonText(const char* first, const char* last, picojson::value& out, std::string& error) {
  out = picojson::value();
  error.clear();
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
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  if (!file) return JsonReadResult::kCannotOpen;
  std::string text(maxBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  const auto got = static_cast<std::size_t>(file.gcount());
  if (got > maxBytes) return JsonReadResult::kTooLarge;
  text.resize(got);
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
