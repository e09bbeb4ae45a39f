// fuzz_app_paths.exe: one "app_paths" value of the product agent as the apps filter adds it.
// A byte is one character; 0xFF and the two bytes after it are one UTF-16 unit, so that lone
// surrogates and every character beyond Latin-1 reach the filter too.
#include <string>

#include "fuzz_driver.h"
#include "startup/apps_filter.h"

namespace {

std::wstring Widen(const std::uint8_t* data, std::size_t size) {
  std::wstring text;
  text.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0xFF && i + 2 < size) {
      text.push_back(static_cast<wchar_t>(data[i + 1] << 8 | data[i + 2]));
      i += 2;
    } else {
      text.push_back(static_cast<wchar_t>(data[i]));
    }
  }
  return text;
}

fuzz::Outcome AddPaths(const std::uint8_t* data, std::size_t size) {
  startup::CAppsFilter filter([] { return static_cast<IProductInfo*>(nullptr); });
  filter.AddPaths(Widen(data, size));
  std::size_t empty = 0;
  std::size_t longest = 0;
  bool wide = false;
  bool surrogate = false;
  for (const std::wstring& path : filter.Paths()) {
    longest = path.size() > longest ? path.size() : longest;
    for (wchar_t c : path) {
      if (c >= L'A' && c <= L'Z') fuzz::Fail("a path kept an upper-case letter");
      wide = wide || c >= 0x80;
      surrogate = surrogate || (c >= 0xD800 && c <= 0xDFFF);
    }
    // Keys are compared lower-cased, so a path matches itself however it is spelt.
    std::wstring upper = path;
    for (wchar_t& c : upper) {
      if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
    }
    if (!filter.Matches(path) || !filter.Matches(upper + L"\\x.exe")) fuzz::Fail("a path does not match itself");
    if (path.empty()) ++empty;
  }
  if (empty != 0 && !filter.Matches(L"anything")) fuzz::Fail("an empty path did not match every key");
  return 1 + (fuzz::Bucket(filter.Paths().size()) << 1 | fuzz::Bucket(empty) << 4 | fuzz::Bucket(longest) << 7 |
              (wide ? 1u : 0u) << 10 | (surrogate ? 1u : 0u) << 11);
}

}  // namespace

int main(int argc, char** argv) {
  return fuzz::Run(argc, argv,
                   {.name = "app_paths",
                    .corpus = {fuzz::ToBytes(R"(["C:\\Program Files\\Nexalon\\Viewer","D:\\APPS\\Tool\\"])"),
                               fuzz::ToBytes(R"([""])"),
                               fuzz::ToBytes(R"(["\u00C9T\u00C9",7,null,{"a":"B"},["C:\\x"]])"),
                               fuzz::ToBytes(R"({"app_paths":["C:\\x"]})"), fuzz::ToBytes("[\"C:\\\\\xff\xd8\x01\"]")},
                    .dictionary = {"C:\\\\Program Files\\\\", "\\u00c9", "\\ud800", "\\udc00", "%ProgramFiles%"},
                    .json = true,
                    .maxBytes = 16 * 1024,
                    .read = &AddPaths});
}
