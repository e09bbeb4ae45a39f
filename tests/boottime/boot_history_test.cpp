// The boot history file: records survive a round trip, unreadable lines are skipped, the
// newest are kept, and the bounds hold.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "boottime/boot_history_file.h"
#include "boottime/boot_history_listener.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

BootRecord Sample(std::int64_t start) {
  BootRecord r;
  r.systemStart = start;
  r.bootTime = 41250;
  r.end = BootEnd::kWindowsEvent;
  r.windowsBootTime = 39900;
  r.logonTime = 20000;
  r.user = L"J\u00e9r\u00f4me";
  r.cpuMs = 5'000'000'000ull;
  r.bytesRead = 1ull << 40;
  r.bytesWritten = 7;
  r.diskMin = 0;
  r.diskMax = 100000;
  r.diskAverage = 46145;
  r.processes = 57;
  r.top = {{L"C:\\Windows\\explorer.exe", 900, 4096, 512}, {L"", 0, 0, 4294967295u}};
  r.entries = {{L"Workload", L"run", StartupState::kDisabled, HistoryImpact{L"", 3600, 10485760, 0}},
               {L"Notes.lnk", L"folder", StartupState::kDelayed, std::nullopt}};
  return r;
}

void ExpectSame(const BootRecord& a, const BootRecord& b) {
  EXPECT_EQ(EncodeBootRecord(a), EncodeBootRecord(b));
  EXPECT_EQ(a.user, b.user);
  ASSERT_EQ(a.entries.size(), b.entries.size());
  EXPECT_EQ(a.entries[1].impact.has_value(), b.entries[1].impact.has_value()) << "an unmeasured entry stays unmeasured";
}

TEST(BootHistoryTest, ARecordComesBackWhole) {
  const BootRecord record = Sample(133'000'000'000'000);
  const std::string line = EncodeBootRecord(record);
  EXPECT_EQ(line.find('\n'), std::string::npos) << "one record is one line";
  EXPECT_NE(line.find(R"("boot":"41250")"), std::string::npos) << "numbers are decimal strings: " << line;
  std::string error;
  std::optional<BootRecord> back = DecodeBootRecord(line, error);
  ASSERT_TRUE(back) << error;
  ExpectSame(record, *back);
  EXPECT_EQ(back->windowsBootTime, 39900u);
  EXPECT_EQ(back->cpuMs, 5'000'000'000ull) << "totals are 64-bit";

  BootRecord quiet = record;
  quiet.end = BootEnd::kQuietAfterLogon;
  quiet.windowsBootTime.reset();
  back = DecodeBootRecord(EncodeBootRecord(quiet), error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->end, BootEnd::kQuietAfterLogon);
  EXPECT_FALSE(back->windowsBootTime);
}

TEST(BootHistoryTest, UnreadableLinesAreSkippedAndCountedTheOthersRead) {
  const std::string good = EncodeBootRecord(Sample(1));
  std::string bad_end = good;
  bad_end.replace(bad_end.find("\"event\""), 7, "\"reboot\"");
  std::string bad_number = good;
  bad_number.replace(bad_number.find("\"41250\""), 7, "41250");  // a JSON number, not a string
  const std::string text = good + "\r\n" + "not json\n" + "[1,2]\n" + "{}\n" + bad_end + "\n" + bad_number +
                           "\n\n   \n" + std::string(kHistoryMaxLineBytes + 1, ' ') + "x\n" +
                           EncodeBootRecord(Sample(2)) /* no final line break */;
  const HistoryDocument document = DecodeHistory(text);
  ASSERT_EQ(document.records.size(), 2u);
  EXPECT_EQ(document.records[0].systemStart, 1);
  EXPECT_EQ(document.records[1].systemStart, 2) << "a last line without a line break still counts";
  EXPECT_EQ(document.skipped, 6u) << "blank lines are not counted as unreadable";
}

TEST(BootHistoryTest, TheNewestHundredAreKeptOnWriteAndOnRead) {
  std::vector<BootRecord> records;
  for (int i = 1; i <= 130; ++i) records.push_back(Sample(i));
  const std::string text = EncodeHistory(records);
  HistoryDocument document = DecodeHistory(text, 1000);
  ASSERT_EQ(document.records.size(), kHistoryKeep);
  EXPECT_EQ(document.records.front().systemStart, 31);
  EXPECT_EQ(document.records.back().systemStart, 130);
  document = DecodeHistory(text, 5);
  ASSERT_EQ(document.records.size(), 5u);
  EXPECT_EQ(document.records.front().systemStart, 126);
}

TEST(BootHistoryTest, ListsAndTextsOverTheBoundsAreCutWhenWrittenAndRefusedWhenRead) {
  BootRecord big = Sample(1);
  big.user = std::wstring(kHistoryMaxText + 50, L'u');
  big.top.assign(kHistoryTopImpacts + 5, HistoryImpact{std::wstring(5000, L'p'), 1, 2, 3});
  big.entries.assign(kHistoryMaxEntries + 5, HistoryEntry{std::wstring(5000, L'n'), L"run", StartupState::kEnabled,
                                                         HistoryImpact{}});
  const std::string line = EncodeBootRecord(big);
  EXPECT_LT(line.size(), kHistoryMaxLineBytes) << "a record at every bound still fits a line";
  std::string error;
  const std::optional<BootRecord> back = DecodeBootRecord(line, error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->user.size(), kHistoryMaxText);
  EXPECT_EQ(back->top.size(), kHistoryTopImpacts);
  EXPECT_EQ(back->entries.size(), kHistoryMaxEntries);

  std::string tooMany = EncodeBootRecord(Sample(1));
  const std::string entry = R"({"kind":"run","name":"x","state":"enabled"},)";
  std::string many;
  for (std::size_t i = 0; i <= kHistoryMaxEntries; ++i) many += entry;
  tooMany.replace(tooMany.find("\"entries\":[") + 11, 0, many);
  EXPECT_FALSE(DecodeBootRecord(tooMany, error)) << "more entries than any writer writes";
  std::string deep = EncodeBootRecord(Sample(1));
  deep.replace(deep.find("\"top\":[") + 7, 0, "[[[[[]]]]],");
  EXPECT_FALSE(DecodeBootRecord(deep, error)) << "nesting deeper than a record";
}

TEST(BootHistoryTest, TheListenerAppendsOnlyMeasuredBootsAndTheFileKeepsTheNewestHundred) {
  testsupport::ScratchFolder folder;
  const std::wstring path = folder.file(kBootHistoryFileName);
  std::optional<BootRecord> measured;
  BootHistoryListener listener([&] { return measured; },
                               [&](const BootRecord& record) { return AppendBootRecord(path, record); });
  HistoryDocument history;
  ASSERT_EQ(ReadBootHistory(path, history), 0u) << "no file yet is an empty history";
  EXPECT_TRUE(history.records.empty());

  listener.OnDataAnalysed(kStatusAvailable);
  EXPECT_EQ(testsupport::ReadFileBytes(path), "") << "a run that measured nothing (a reload) adds no record";
  measured = Sample(1);
  listener.OnDataAnalysed(kStatusNoResults);
  EXPECT_EQ(testsupport::ReadFileBytes(path), "") << "a failed run adds no record";
  listener.OnDataAnalysed(kStatusAvailable);
  ASSERT_EQ(ReadBootHistory(path, history), 0u);
  ASSERT_EQ(history.records.size(), 1u);

  std::vector<BootRecord> full;
  for (int i = 1; i <= 100; ++i) full.push_back(Sample(i));
  testsupport::WriteFileBytes(path, "garbage\n" + EncodeHistory(full));
  measured = Sample(101);
  listener.OnDataAnalysed(kStatusAvailable);
  ASSERT_EQ(ReadBootHistory(path, history), 0u);
  ASSERT_EQ(history.records.size(), kHistoryKeep);
  EXPECT_EQ(history.records.front().systemStart, 2);
  EXPECT_EQ(history.records.back().systemStart, 101);
  EXPECT_EQ(history.skipped, 0u) << "an unreadable line is dropped when the file is rewritten";

  testsupport::WriteFileBytes(path, std::string(kHistoryMaxFileBytes + 1, '\n'));
  EXPECT_EQ(ReadBootHistory(path, history), static_cast<std::uint32_t>(ERROR_FILE_TOO_LARGE));
  EXPECT_TRUE(history.records.empty());
  listener.OnDataAnalysed(kStatusAvailable);
  ASSERT_EQ(ReadBootHistory(path, history), 0u);
  EXPECT_EQ(history.records.size(), 1u) << "a file over its bound is started afresh";
}

}  // namespace
}  // namespace boottime
