// The "boottimepipe" payload encoding: exact bytes, round trips and untrusted input.
#include <cstring>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "boottime/comm/encoded_impact_list.h"
#include "boottime/comm/payload.h"

namespace boottime {
namespace {

ky::List<ProcessImpact> Impacts(std::uint64_t count) {
  ky::List<ProcessImpact> impacts;
  for (std::uint64_t i = 0; i < count; ++i) {
    impacts.Add({i + 1000, i, L"C:\\Program Files\\app" + std::to_wstring(i) + L".exe", static_cast<std::uint32_t>(i), 2, 3,
                 4, 0xFFFFFFFF});
  }
  return impacts;
}

void ExpectSame(const ky::List<ProcessImpact>& back, const ky::List<ProcessImpact>& sent) {
  auto fields = [](const ProcessImpact& i) {
    return std::tie(i.ppid, i.pid, i.name, i.kernel, i.user, i.read, i.write, i.other);
  };
  ASSERT_EQ(back.Count(), sent.Count());
  for (std::size_t i = 0; i < sent.Count(); ++i) {
    EXPECT_TRUE(fields(back.Items()[i]) == fields(sent.Items()[i])) << "entry " << i;
  }
}

TEST(Payload, ElementsAreLittleEndianWithoutPadding) {
  CPayloadWriter w;
  w.WriteU32(0x04030201);
  w.WriteU64(0x0C0B0A0908070605ull);
  w.WriteString(L"ab");
  w.WriteString(L"");
  w.WriteF64(1.0);
  w.WriteImpactList(ky::List<ProcessImpact>{});
  const std::vector<std::uint8_t> expected = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12,  // u32, u64
                                              3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0,     // "ab" with its zero
                                              1, 0, 0, 0, 0, 0,                     // empty string
                                              0, 0, 0, 0, 0, 0, 0xF0, 0x3F,         // 1.0
                                              0, 0, 0, 0};                          // empty impact list
  EXPECT_EQ(std::vector<std::uint8_t>(w.Data(), w.Data() + w.Size()), expected);
}

// Many impacts also outgrow the writer's inline buffer.
TEST(Payload, EveryElementAndImpactListsOfNoneAndManyEntriesRoundTrip) {
  const auto none = Impacts(0), many = Impacts(500);
  CPayloadWriter w;
  w.WriteU32(0xFEDCBA98);
  w.WriteU64(0x123456789ABCDEF0ull);
  w.WriteF64(-0.125);
  w.WriteBootTime(123456);
  w.WriteErrorCode(31);
  w.WriteCounters(BootCounters{1, 2, 3, 4, 5});
  w.WriteProcessKey(ProcessKey{7, 8, L"C:\\Windows\\\u00e9xplorer.exe"});
  w.WriteImpactList(none);
  w.WriteImpactList(many);
  w.WriteDiskSpeed(DiskSpeed{0.5, 99.25, -1e300});
  w.WriteString(L"x");
  EXPECT_TRUE(w.OnHeap());

  CPayloadReader r(w.Data(), w.Size());
  std::uint32_t u32 = 0, time = 0, code = 0;
  std::uint64_t u64 = 0;
  double f64 = 0;
  BootCounters counters;
  ProcessKey key;
  ky::List<ProcessImpact> noneBack, manyBack;
  DiskSpeed disk;
  std::wstring text;
  ASSERT_TRUE(r.ReadU32(&u32) && r.ReadU64(&u64) && r.ReadF64(&f64) && r.ReadBootTime(&time) && r.ReadErrorCode(&code) &&
              r.ReadCounters(&counters) && r.ReadProcessKey(&key) && r.ReadImpactList(&noneBack) &&
              r.ReadImpactList(&manyBack) && r.ReadDiskSpeed(&disk) && r.ReadString(&text));
  EXPECT_EQ(std::tie(u32, u64, f64, time, code), std::make_tuple(0xFEDCBA98u, 0x123456789ABCDEF0ull, -0.125, 123456u, 31u));
  EXPECT_EQ((std::vector<std::uint32_t>{counters.kernel, counters.user, counters.read, counters.write, counters.other}),
            (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
  EXPECT_TRUE(key.ppid == 7 && key.pid == 8 && key.name == L"C:\\Windows\\\u00e9xplorer.exe");
  ExpectSame(noneBack, none);
  ExpectSame(manyBack, many);
  EXPECT_EQ((std::vector<double>{disk.minimum, disk.maximum, disk.average}), (std::vector<double>{0.5, 99.25, -1e300}));
  EXPECT_EQ(text, L"x");
  EXPECT_EQ(r.Remaining(), 0u);
  EXPECT_TRUE(r.Ok());
}

TEST(Payload, AnEncodedListWritesWhatAWrittenListWouldAndReadsBackAfterClear) {
  const auto impacts = Impacts(300);
  CPayloadWriter expected;
  expected.WriteU32(7);
  expected.WriteImpactList(impacts);

  CPayloadWriter w;
  w.WriteU32(7);
  CEncodedImpactList list(w);
  list.Add({9, 9, L"dropped by Clear.exe"});
  list.Clear();
  for (const auto& impact : impacts.Items()) list.Add(impact);
  EXPECT_EQ(list.Count(), 300u);
  ASSERT_EQ(w.Size(), expected.Size());
  EXPECT_EQ(std::memcmp(w.Data(), expected.Data(), w.Size()), 0) << "the bytes sent are those of the list";
  ky::List<ProcessImpact> back(ky::ToVector<ProcessImpact>(list));
  ExpectSame(back, impacts);
  list.Add({1, 2, L"after enumeration.exe"});
  EXPECT_EQ(ky::ToVector<ProcessImpact>(list).back().name, L"after enumeration.exe");
}

TEST(Payload, VisitedEntriesCarryNothingOfTheOneBeforeAndNoneAreVisitedFromABadList) {
  ky::List<ProcessImpact> impacts;
  impacts.Add({1, 1, L"C:\\a much longer name than the next.exe", 5, 6, 7, 8, 9});
  impacts.Add({2, 2, L"b.exe"});
  impacts.Add({3, 3, L""});
  CPayloadWriter w;
  w.WriteImpactList(impacts);
  std::vector<ProcessImpact> seen;
  CPayloadReader r(w.Data(), w.Size());
  ASSERT_TRUE(r.ReadImpactList([&](const ProcessImpact& impact) { seen.push_back(impact); }));
  ASSERT_EQ(seen.size(), 3u);
  ExpectSame(ky::List<ProcessImpact>(seen), impacts);

  int visits = 0;
  CPayloadReader cut(w.Data(), w.Size() - 1);
  EXPECT_FALSE(cut.ReadImpactList([&](const ProcessImpact&) { ++visits; }));
  EXPECT_EQ(visits, 0);
}

TEST(Payload, TruncatedOrLyingPayloadsAreRejectedWithoutWritingTheOutput) {
  // A read past the end leaves its output alone and poisons every later read, even one that
  // would fit the original bytes.
  const std::uint8_t bytes[] = {1, 0, 0, 0, 2, 0};
  CPayloadReader r(bytes, sizeof bytes);
  std::uint32_t first = 0, second = 99;
  ASSERT_TRUE(r.ReadU32(&first));
  EXPECT_FALSE(r.ReadU32(&second));
  EXPECT_EQ(second, 99u);
  EXPECT_FALSE(r.Ok());
  std::uint64_t wide = 5;
  EXPECT_FALSE(r.ReadU64(&wide));
  EXPECT_EQ(wide, 5u);

  CPayloadWriter w;
  w.WriteImpactList(Impacts(2));
  for (std::uint32_t cut = 0; cut < w.Size(); ++cut) {
    ky::List<ProcessImpact> back;
    CPayloadReader r(w.Data(), cut);
    EXPECT_FALSE(r.ReadImpactList(&back)) << "cut at " << cut;
    EXPECT_EQ(back.Count(), 0u) << "a partly read list adds nothing, cut at " << cut;
  }

  // A huge count is refused before any allocation.
  const std::uint8_t hugeCount[] = {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
  ky::List<ProcessImpact> back;
  CPayloadReader huge(hugeCount, sizeof hugeCount);
  EXPECT_FALSE(huge.ReadImpactList(&back));

  // A string whose length runs past the end, a zero length, and text without its zero unit.
  const std::vector<std::vector<std::uint8_t>> badStrings = {
      {0xFF, 0xFF, 0xFF, 0x7F, 'a', 0}, {0, 0, 0, 0}, {2, 0, 0, 0, 'a', 0, 'b', 0}};
  for (const auto& bad : badStrings) {
    std::wstring text = L"kept";
    CPayloadReader r(bad.data(), bad.size());
    EXPECT_FALSE(r.ReadString(&text));
    EXPECT_EQ(text, L"kept");
  }

  CPayloadReader empty(nullptr, 12);
  std::uint32_t v = 3;
  EXPECT_FALSE(empty.ReadU32(&v)) << "a null payload has no bytes whatever its stated size";
}

}  // namespace
}  // namespace boottime
