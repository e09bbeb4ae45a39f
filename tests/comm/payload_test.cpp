// The "boottimepipe" payload encoding: exact bytes, round trips and untrusted input.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "boottime/comm/payload.h"

namespace boottime {
namespace {

std::vector<std::uint8_t> Bytes(const CPayloadWriter& w) { return {w.Data(), w.Data() + w.Size()}; }

ProcessImpact Impact(std::uint64_t pid, const std::wstring& name) {
  return ProcessImpact{pid + 1000, pid, name, static_cast<std::uint32_t>(pid), 2, 3, 4, 0xFFFFFFFF};
}

bool Same(const ProcessImpact& a, const ProcessImpact& b) {
  return a.ppid == b.ppid && a.pid == b.pid && a.name == b.name && a.kernel == b.kernel && a.user == b.user &&
         a.read == b.read && a.write == b.write && a.other == b.other;
}

TEST(Payload, ElementsAreLittleEndianWithoutPadding) {
  CPayloadWriter w;
  w.WriteU32(0x04030201);
  w.WriteU64(0x0C0B0A0908070605ull);
  w.WriteString(L"ab");
  w.WriteString(L"");
  const std::vector<std::uint8_t> expected = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12,  // u32, u64
                                              3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0,     // "ab" with its zero
                                              1, 0, 0, 0, 0, 0};                    // empty string
  EXPECT_EQ(Bytes(w), expected);

  CPayloadWriter d;
  d.WriteF64(1.0);
  EXPECT_EQ(Bytes(d), (std::vector<std::uint8_t>{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
}

TEST(Payload, EveryElementRoundTrips) {
  CPayloadWriter w;
  w.WriteBootTime(123456);
  w.WriteErrorCode(31);
  w.WriteCounters(BootCounters{1, 2, 3, 4, 5});
  w.WriteProcessKey(ProcessKey{7, 8, L"C:\\Windows\\\u00e9xplorer.exe"});
  w.WriteDiskSpeed(DiskSpeed{0.5, 99.25, -1e300});
  w.WriteString(L"x");

  CPayloadReader r(w.Data(), w.Size());
  std::uint32_t time = 0, code = 0;
  BootCounters counters;
  ProcessKey key;
  DiskSpeed disk;
  std::wstring text;
  ASSERT_TRUE(r.ReadBootTime(&time));
  ASSERT_TRUE(r.ReadErrorCode(&code));
  ASSERT_TRUE(r.ReadCounters(&counters));
  ASSERT_TRUE(r.ReadProcessKey(&key));
  ASSERT_TRUE(r.ReadDiskSpeed(&disk));
  ASSERT_TRUE(r.ReadString(&text));
  EXPECT_EQ(time, 123456u);
  EXPECT_EQ(code, 31u);
  EXPECT_EQ(counters.kernel, 1u);
  EXPECT_EQ(counters.other, 5u);
  EXPECT_EQ(key.ppid, 7u);
  EXPECT_EQ(key.pid, 8u);
  EXPECT_EQ(key.name, L"C:\\Windows\\\u00e9xplorer.exe");
  EXPECT_EQ(disk.minimum, 0.5);
  EXPECT_EQ(disk.maximum, 99.25);
  EXPECT_EQ(disk.average, -1e300);
  EXPECT_EQ(text, L"x");
  EXPECT_EQ(r.Remaining(), 0u);
  EXPECT_TRUE(r.Ok());
}

TEST(Payload, ImpactListOfZeroIsFourZeroBytes) {
  CPayloadWriter w;
  w.WriteImpactList(ky::List<ProcessImpact>{});
  EXPECT_EQ(Bytes(w), (std::vector<std::uint8_t>{0, 0, 0, 0}));
  ky::List<ProcessImpact> back;
  CPayloadReader r(w.Data(), w.Size());
  EXPECT_TRUE(r.ReadImpactList(&back));
  EXPECT_EQ(back.Count(), 0u);
}

TEST(Payload, ManyImpactsMoveTheWriterToTheHeapAndComeBackInOrder) {
  ky::List<ProcessImpact> impacts;
  for (std::uint64_t i = 0; i < 500; ++i) impacts.Add(Impact(i, L"C:\\Program Files\\app" + std::to_wstring(i) + L".exe"));
  CPayloadWriter w;
  w.WriteImpactList(impacts);
  EXPECT_TRUE(w.OnHeap());
  CPayloadReader r(w.Data(), w.Size());
  ky::List<ProcessImpact> back;
  ASSERT_TRUE(r.ReadImpactList(&back));
  ASSERT_EQ(back.Count(), 500u);
  for (std::size_t i = 0; i < 500; ++i) EXPECT_TRUE(Same(back.Items()[i], impacts.Items()[i])) << "entry " << i;
}

TEST(Payload, VisitedEntriesCarryNothingOfTheOneBeforeAndNoneAreVisitedFromABadList) {
  ky::List<ProcessImpact> impacts;
  impacts.Add(Impact(1, L"C:\\a much longer name than the next.exe"));
  impacts.Add(Impact(2, L"b.exe"));
  impacts.Add(Impact(3, L""));
  CPayloadWriter w;
  w.WriteImpactList(impacts);
  std::vector<ProcessImpact> seen;
  CPayloadReader r(w.Data(), w.Size());
  ASSERT_TRUE(r.ReadImpactList([&](const ProcessImpact& impact) { seen.push_back(impact); }));
  ASSERT_EQ(seen.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_TRUE(Same(seen[i], impacts.Items()[i])) << "entry " << i;

  int visits = 0;
  CPayloadReader cut(w.Data(), w.Size() - 1);
  EXPECT_FALSE(cut.ReadImpactList([&](const ProcessImpact&) { ++visits; }));
  EXPECT_EQ(visits, 0);
}

TEST(Payload, WriterStaysInlineUpTo1024Bytes) {
  CPayloadWriter w;
  for (int i = 0; i < 256; ++i) w.WriteU32(static_cast<std::uint32_t>(i));
  EXPECT_FALSE(w.OnHeap());
  w.WriteU32(7);
  EXPECT_TRUE(w.OnHeap());
  CPayloadReader r(w.Data(), w.Size());
  std::uint32_t v = 0;
  for (int i = 0; i < 257; ++i) ASSERT_TRUE(r.ReadU32(&v));
  EXPECT_EQ(v, 7u) << "the bytes written inline survived the move to the heap";
}

TEST(Payload, ReadPastTheEndLeavesTheElementAndPoisonsEveryLaterRead) {
  const std::uint8_t bytes[] = {1, 0, 0, 0, 2, 0};
  CPayloadReader r(bytes, sizeof bytes);
  std::uint32_t first = 0, second = 99;
  ASSERT_TRUE(r.ReadU32(&first));
  EXPECT_FALSE(r.ReadU32(&second));
  EXPECT_EQ(second, 99u) << "a short read leaves its output unwritten";
  EXPECT_FALSE(r.Ok());
  std::uint64_t wide = 5;
  EXPECT_FALSE(r.ReadU64(&wide)) << "even a read that would fit the original bytes fails after poisoning";
  EXPECT_EQ(wide, 5u);
}

TEST(Payload, BootTimeReplyReadAsCountersFillsOnlyTheFirstField) {
  CPayloadWriter w;
  w.WriteBootTime(4242);
  BootCounters counters{9, 9, 9, 9, 9};
  CPayloadReader r(w.Data(), w.Size());
  EXPECT_FALSE(r.ReadCounters(&counters));
  EXPECT_EQ(counters.kernel, 4242u);
  EXPECT_EQ(counters.user, 9u);
  EXPECT_EQ(counters.other, 9u);
}

TEST(Payload, TruncatedOrLyingPayloadsAreRejectedWithoutWritingTheOutput) {
  ky::List<ProcessImpact> impacts;
  impacts.Add(Impact(1, L"a.exe"));
  impacts.Add(Impact(2, L"b.exe"));
  CPayloadWriter w;
  w.WriteImpactList(impacts);
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
    EXPECT_FALSE(r.Ok());
  }

  CPayloadReader empty(nullptr, 12);
  std::uint32_t v = 3;
  EXPECT_FALSE(empty.ReadU32(&v)) << "a null payload has no bytes whatever its stated size";
}

}  // namespace
}  // namespace boottime
