// The backup store against real files: layout of "Storage.json" and its deliberate quirks.
#include <gtest/gtest.h>

#include <ctime>
#include <regex>

#include "scratch.h"
#include "startup/startup_storage.h"
#include "support/captured_log.h"

namespace {

using startup::storage::CStartupItemsStorage;
using testing_startup::MakeItem;
using testing_startup::ScratchStore;

CStartupItemsStorage& Store() { return CStartupItemsStorage::Instance(); }

// "ChangedTime" values replaced by T, so the layout can be compared exactly.
std::string WithoutTimes(const std::string& text) {
  return std::regex_replace(text, std::regex("\"ChangedTime\":-?[0-9]+"), "\"ChangedTime\":T");
}

TEST(StartupStorage, SavingIntoAMissingFileWritesCompactSortedGroupsAndTheSaveTime) {
  ScratchStore file;
  auto user = MakeItem(L"App", L"HKEY_CURRENT_USER\\Run", L"c:\\app.exe /x", 1);
  user->changedTime = 12345;
  ASSERT_EQ(Store().SaveStartupItem(user, "Disabled"), 0u);
  ASSERT_EQ(Store().SaveStartupItem(MakeItem(L"Sys", L"C:\\Startup\\", L"c:\\s.exe", 0), "StartupDelayed"), 0u);
  EXPECT_EQ(WithoutTimes(file.Text()),
            R"({"system":{"StartupDelayed":[{"BkpPath":"","ChangedTime":T,"Cmd":"c:\\s.exe","Name":"Sys",)"
            R"("Path":"C:\\Startup\\"}]},"user":{"Disabled":[{"BkpPath":"","ChangedTime":T,"Cmd":"c:\\app.exe \/x",)"
            R"("Name":"App","Path":"HKEY_CURRENT_USER\\Run"}]}})");

  const auto loaded = file.Load("Disabled");
  ASSERT_EQ(loaded.size(), 1u);
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  EXPECT_NEAR(static_cast<double>(loaded[0]->changedTime), static_cast<double>(now), 5.0)
      << "ChangedTime is the save time, not the item's own";
  EXPECT_EQ(loaded[0]->isUser, 1);
  EXPECT_EQ(loaded[0]->path, L"c:\\app.exe /x");
  EXPECT_EQ(file.Load("StartupDelayed").at(0)->isUser, 0) << "items under \"system\" load as the machine's";
}

TEST(StartupStorage, DuplicateSavesAreKeptAndRemovedTogetherButMalformedElementsStay) {
  ScratchStore file;
  auto item = MakeItem(L"App", L"HKEY_CURRENT_USER\\Run", L"app.exe");
  ASSERT_EQ(Store().SaveStartupItem(item, "Disabled"), 0u);
  ASSERT_EQ(Store().SaveStartupItem(item, "Disabled"), 0u);
  ASSERT_EQ(file.Load("Disabled").size(), 2u) << "a second save appends, it does not replace";

  // An element without "Cmd" and one with a numeric "Name" are neither listed nor removed.
  std::string text = file.Text();
  text.insert(text.find('[') + 1, R"({"Name":"App","Path":"HKEY_CURRENT_USER\\Run"},{"Cmd":"a","Name":7,"Path":"p"},)");
  file.Write(text);
  EXPECT_EQ(file.Load("Disabled").size(), 2u);

  ASSERT_EQ(Store().RemoveStartupItems({item}, "Disabled"), 0u);
  EXPECT_TRUE(file.Load("Disabled").empty()) << "every matching element goes";
  EXPECT_NE(file.Text().find(R"({"Name":"App","Path":"HKEY_CURRENT_USER\\Run"})"), std::string::npos);
  EXPECT_NE(file.Text().find(R"("Name":7)"), std::string::npos);
}

TEST(StartupStorage, TextIsStoredAsLowBytesSoANameAbove0x7FDoesNotMatchOnRemoval) {
  ScratchStore file;
  auto item = MakeItem(L"Caf\u00e9", L"HKEY_CURRENT_USER\\Run", L"cafe.exe");
  ASSERT_EQ(Store().SaveStartupItem(item, "Delayed"), 0u);
  const auto loaded = file.Load("Delayed");
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0]->name, std::wstring(L"Caf") + wchar_t(0xFFE9)) << "bytes widen with sign extension";
  ASSERT_EQ(Store().RemoveStartupItems({item}, "Delayed"), 0u);
  EXPECT_EQ(file.Load("Delayed").size(), 1u);
  ASSERT_EQ(Store().RemoveStartupItems(loaded, "Delayed"), 0u);
  EXPECT_TRUE(file.Load("Delayed").empty()) << "the item as read back does match";
}

TEST(StartupStorage, AMissingFileLoadsNothingAndARemovalFromItWritesNothing) {
  ScratchStore file;
  startup::StartupItemList items;
  EXPECT_EQ(Store().LoadStartupItems("Disabled", items), 31u);
  EXPECT_EQ(Store().RemoveStartupItems({MakeItem(L"a", L"b", L"c")}, "Disabled"), 0u);
  EXPECT_FALSE(file.Exists());
}

TEST(StartupStorage, AFileTheSaveWouldReplaceIsKeptBesideItFirst) {
  ScratchStore file;
  const std::wstring kept = file.Path() + L".unreadable";
  std::string deep;
  for (int i = 0; i < 10000; ++i) deep += "{\"user\":";
  const struct {
    const char* what;
    std::string content;
    std::uint32_t loads;
  } cases[] = {
      {"unparsable", "{not json", 31},
      {"nested 10000 levels", deep, 31},
      {"nested beyond the parser's limit", std::string(200, '[') + std::string(200, ']'), 31},
      {"a top-level array", R"([{"user":{"Disabled":[{"Cmd":"a","Name":"b","Path":"c"}]}}])", 0},
      {"a group of the wrong type", R"({"user":"text","boot_time":[]})", 0},
      {"a section of the wrong type", R"({"user":{"Disabled":{"a":1}}})", 0},
      {"over the size limit", std::string(16 * 1024 * 1024 + 1, ' '), 31},
  };
  for (const auto& c : cases) {
    file.Write(c.content);
    startup::StartupItemList items;
    EXPECT_EQ(Store().LoadStartupItems("Disabled", items), c.loads) << c.what;
    EXPECT_TRUE(items.empty()) << c.what << ": nothing listed";
    testsupport::CapturedLog log;
    ASSERT_EQ(Store().SaveStartupItem(MakeItem(L"n", L"l", L"p"), "Disabled"), 0u) << c.what;
    EXPECT_EQ(file.Load("Disabled").size(), 1u) << c.what << ": replaced as before";
    EXPECT_TRUE(testsupport::ReadFileBytes(kept) == c.content) << c.what << ": the latest unreadable file is kept";
    EXPECT_TRUE(log.contains(L"Unreadable " + file.Path() + L" kept as " + kept)) << c.what;
    EXPECT_EQ(log.count(L"holds more than 16777216 bytes: not read"), c.content.size() > 16 * 1024 * 1024 ? 1u : 0u)
        << c.what << ": only a file refused for its size says so";
  }
  ::DeleteFileW(kept.c_str());
  ASSERT_EQ(Store().SaveStartupItem(MakeItem(L"m", L"l", L"p"), "Delayed"), 0u);
  EXPECT_EQ(::GetFileAttributesW(kept.c_str()), INVALID_FILE_ATTRIBUTES) << "a readable file is not copied";

  // A store path that is a folder: the save fails and the folder stays.
  ::DeleteFileW(file.Path().c_str());
  ASSERT_TRUE(::CreateDirectoryW(file.Path().c_str(), nullptr));
  EXPECT_EQ(Store().SaveStartupItem(MakeItem(L"n", L"l", L"p"), "Disabled"), 31u);
  EXPECT_NE(::GetFileAttributesW(file.Path().c_str()) & FILE_ATTRIBUTE_DIRECTORY, 0u);
  ::RemoveDirectoryW(file.Path().c_str());
}

// A store a user filled by hand is read up to the bound, the user's records first, and one
// line says how many well-formed records were left out and from where.
TEST(StartupStorage, RecordsBeyondTheBoundAreLeftOutWithOneLineSayingHowMany) {
  using startup::storage::kMaxLoadedItems;
  ScratchStore file;
  const auto records = [](const char* prefix, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
      text += std::string(i == 0 ? "" : ",") + R"({"Cmd":"c","Name":")" + prefix + std::to_string(i) + R"(","Path":"p"})";
    }
    return text;
  };
  file.Write(R"({"system":{"Disabled":[)" + records("s", 3) + R"(]},"user":{"Delayed":[)" + records("d", 2) +
             R"(],"Disabled":[{"Name":"malformed"},)" + records("u", kMaxLoadedItems + 5) + R"(]}})");
  testsupport::CapturedLog log;
  startup::StartupItemList items;
  ASSERT_EQ(Store().LoadStartupItems("Disabled", items), 0u);
  ASSERT_EQ(items.size(), kMaxLoadedItems);
  EXPECT_EQ(items.front()->name, L"u0");
  EXPECT_EQ(items.back()->name, L"u" + std::to_wstring(kMaxLoadedItems - 1)) << "the first ones, in file order";
  EXPECT_EQ(log.count(file.Path() + L": 8 records left out, beyond the first 10000 (Disabled 8)"), 1u)
      << "a malformed element is not counted as a record";

  items.clear();
  ASSERT_EQ(Store().LoadStartupItems("Disabled", items, kMaxLoadedItems + 7), 0u);
  ASSERT_EQ(items.size(), kMaxLoadedItems + 7);
  EXPECT_EQ(items.back()->name, L"s1") << "the machine's records take what the user's left of the bound";

  log.clear();
  std::vector<startup::StartupItemList> lists;
  ASSERT_EQ(Store().LoadSections({"Disabled", "Delayed", "StartupDelayed"}, lists), 0u);
  ASSERT_EQ(lists.size(), 3u);
  EXPECT_EQ(lists[0].size(), kMaxLoadedItems);
  EXPECT_TRUE(lists[1].empty()) << "the bound holds over all sections together";
  EXPECT_EQ(log.count(L"left out"), 1u);
  EXPECT_TRUE(log.contains(L": 10 records left out, beyond the first 10000 (Disabled 8, Delayed 2)"));
  ASSERT_EQ(Store().LoadSections({"Delayed", "Disabled"}, lists, kMaxLoadedItems + 10), 0u);
  EXPECT_EQ(lists[0].size() + lists[1].size(), kMaxLoadedItems + 10);
  EXPECT_EQ(log.count(L"left out"), 1u) << "nothing left out, nothing said";
}

TEST(StartupStorage, BootTimesKeepOnlyElementsWithAStringPathAndANumericTime) {
  ScratchStore file;
  file.Write(R"({"boot_time":[{"path":"c:\\a.exe","time":1500},{"path":"b","time":"7"},{"time":3},)"
             R"({"path":"c","time":4294967297.9}]})");
  std::vector<startup::storage::BootTimeRecord> records;
  ASSERT_EQ(Store().LoadBootTime(records), 0u);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].path, L"c:\\a.exe");
  EXPECT_EQ(records[0].time, 1500u);
  EXPECT_EQ(records[1].time, 1u) << "truncated, then cut to 32 bits";
}

}  // namespace
