// The analyser as the plug-in shares it between threads, and the Task Manager impact rule.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "boottime/boot_time_analyser_state.h"
#include "boottime/impact_rating.h"
#include "support/captured_log.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

TEST(AnalyserState, StatusFollowsWhatTheLastRunFound) {
  testsupport::CapturedLog log;
  testsupport::ScratchFolder folder;
  AnalyserState state;
  BootCounters total;
  EXPECT_EQ(state.Summary(&total), 1u) << "nothing known before a run";

  BootTimeData empty;
  state.Analyse(&empty);
  EXPECT_EQ(state.Status(), 2u);
  EXPECT_FALSE(state.HasData());

  BootTimeData data;
  data.AddProcess(4, 100, L"C:\\a.exe");
  data.AddSample(100, Sample{1000, 10, 20, 4096, 512, 0});
  data.AddSample(100, Sample{2000, 110, 520, 8192, 1024, 0});
  data.AddProcess(4, 200, L"C:\\b.exe");
  data.AddSample(200, Sample{1000, 1, 2, 3, 4, 5});
  state.Analyse(&data);
  EXPECT_EQ(state.Summary(&total), 0u);
  EXPECT_TRUE(state.HasData());
  EXPECT_EQ(total.kernel, 111u);
  EXPECT_EQ(total.user, 522u);
  EXPECT_EQ(total.read, 8195u);

  const std::wstring path = folder.file(kProcessImpactFileName);
  ASSERT_TRUE(state.Store(path));
  AnalyserState reloaded;
  reloaded.Load(path);
  BootCounters again;
  EXPECT_EQ(reloaded.Summary(&again), 0u);
  EXPECT_EQ(again.user, total.user);
  ky::List<ProcessImpact> impacts;
  ProcessKey key;
  key.pid = 200;
  EXPECT_EQ(reloaded.GetImpacts(&key, impacts), 0u);
  ASSERT_EQ(impacts.Count(), 1u);
  EXPECT_EQ(impacts.Items()[0].other, 5u);

  // A failed reload leaves nothing of the earlier impacts behind.
  reloaded.Load(folder.file(L"missing.json"));
  EXPECT_EQ(reloaded.Summary(&again), 2u);
  EXPECT_FALSE(reloaded.HasData());
  impacts.Clear();
  EXPECT_EQ(reloaded.GetImpacts(nullptr, impacts), 2u);
  EXPECT_EQ(impacts.Count(), 0u);
}

TEST(AnalyserState, QueriesOnOtherThreadsSeeWholeResultsWhileTheProcessingThreadAnalyses) {
  testsupport::CapturedLog log;
  BootTimeData data;
  for (std::uint64_t pid = 1; pid <= 200; ++pid) {
    data.AddProcess(0, pid, L"p");
    data.AddSample(pid, Sample{1000, 1, 1, 1, 0, 0});
  }
  AnalyserState state;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!done.load()) {
      ky::List<ProcessImpact> impacts;
      if (state.GetImpacts(nullptr, impacts) == 0 && impacts.Count() != 200) ++torn;
    }
  });
  for (int i = 0; i < 200; ++i) state.Analyse(&data);
  done = true;
  reader.join();
  EXPECT_EQ(torn.load(), 0) << "a query saw the impact map half rebuilt";
}

TEST(ImpactRating, TaskManagerThresholds) {
  struct Case {
    std::uint64_t cpuMs;
    std::uint64_t ioBytes;
    ImpactRating expected;
  };
  const Case cases[] = {
      {0, 0, ImpactRating::kLow},
      {299, 300 * 1024 - 1, ImpactRating::kLow},
      {300, 0, ImpactRating::kMedium},
      {0, 300 * 1024, ImpactRating::kMedium},
      {1000, 3 * 1024 * 1024, ImpactRating::kMedium},
      {1001, 0, ImpactRating::kHigh},
      {0, 3 * 1024 * 1024 + 1, ImpactRating::kHigh},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RateImpact(c.cpuMs, c.ioBytes), c.expected) << c.cpuMs << " ms, " << c.ioBytes << " bytes";
  }
  ProcessImpact split;
  split.kernel = 600;
  split.user = 401;  // together above a second, though neither is
  EXPECT_EQ(RateImpact(split), ImpactRating::kHigh);
  ProcessImpact io;
  io.read = 0xFFFFFFFFu;
  io.write = 0xFFFFFFFFu;  // the sum must not wrap at 32 bits
  EXPECT_EQ(RateImpact(io), ImpactRating::kHigh);
  EXPECT_STREQ(RatingName(ImpactRating::kNotMeasured), "not measured");
}

TEST(ImpactRating, BlameOrdersByRatingThenCpuThenIo) {
  auto make = [](std::uint64_t pid, std::uint32_t user, std::uint32_t write) {
    ProcessImpact p;
    p.pid = pid;
    p.user = user;
    p.write = write;
    return p;
  };
  std::vector<ProcessImpact> impacts{make(1, 10, 0), make(2, 10, 4 * 1024 * 1024), make(3, 900, 0),
                                     make(4, 2000, 0), make(5, 10, 100), make(6, 10, 0)};
  SortByImpact(impacts);
  std::vector<std::uint64_t> order;
  for (const auto& p : impacts) order.push_back(p.pid);
  EXPECT_EQ(order, (std::vector<std::uint64_t>{4, 2, 3, 5, 1, 6}));
}

}  // namespace
}  // namespace boottime
