// The one bounded JSON reader behind every JSON file of the module and its tools.
#include <gtest/gtest.h>

#include <string>

#include "common/json_file.h"
#include "support/scratch_folder.h"

namespace {

std::string Nested(const char* open, const char* close, std::size_t depth) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  text += "1";
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

TEST(JsonFile, NestingBeyondTheLimitIsRefusedBeforeParsingWhateverTheBrackets) {
  const struct {
    const char* what;
    std::string text;
    bool ok;
  } cases[] = {
      {"arrays at the limit", Nested("[", "]", ky::kMaxJsonDepth), true},
      {"objects at the limit", Nested("{\"a\":", "}", ky::kMaxJsonDepth), true},
      {"objects deeper", Nested("{\"a\":", "}", ky::kMaxJsonDepth + 1), false},
      {"10000 objects", Nested("{\"a\":", "}", 10000), false},
      {"10000 arrays never closed", std::string(10000, '['), false},
      {"brackets inside strings", "{\"a\":\"" + std::string(5000, '{') + "\\\"[[[\"}", true},
      {"closers before openers", "]]]}}}" + Nested("[", "]", 3), false},
  };
  for (const auto& c : cases) {
    picojson::value value(1.0);
    std::string error;
    (void)ky::ParseJsonText(c.text.data(), c.text.data() + c.text.size(), value, error);
    EXPECT_EQ(error.empty(), c.ok) << c.what << ": " << error;
    EXPECT_EQ(value.is<picojson::null>(), !c.ok) << c.what;
  }
  picojson::value value;
  std::string error;
  const std::string deep = Nested("[", "]", 10000);
  EXPECT_FALSE(ky::ParseJsonText(deep.data(), deep.data() + deep.size(), value, error));
  EXPECT_EQ(error, "nested deeper than 100 levels");
}

TEST(JsonFile, ReadsWhatTheFileHoldsUpToItsLimit) {
  testsupport::ScratchFolder folder;
  const std::wstring path = folder.file(L"doc.json");
  testsupport::WriteFileBytes(path, "{\"k\":\"v\"}");
  picojson::value value;
  std::string error;
  ASSERT_EQ(ky::ReadJsonFile(path, value, error, 9), ky::JsonReadResult::kOk);
  EXPECT_EQ(value.get("k").to_str(), "v");
  EXPECT_EQ(ky::ReadJsonFile(path, value, error, 8), ky::JsonReadResult::kTooLarge);
  EXPECT_TRUE(value.is<picojson::null>());
  EXPECT_EQ(ky::ReadJsonFile(folder.file(L"none.json"), value, error), ky::JsonReadResult::kCannotOpen);
  EXPECT_EQ(ky::ReadJsonFile(folder.path(), value, error), ky::JsonReadResult::kCannotOpen) << "a folder";
  testsupport::WriteFileBytes(path, Nested("{\"a\":", "}", 10000));
  EXPECT_EQ(ky::ReadJsonFile(path, value, error), ky::JsonReadResult::kParseError);
  EXPECT_EQ(error, "nested deeper than 100 levels");
}

}  // namespace
