// The system's boot event as the monitor sees it, through a test double of wevtapi.dll
// beside the program, named by its full path (a bare name is taken from System32 only), and
// Wine's real service control manager for "RpcSs".
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>

#include "boottime/boot_time_data.h"
#include "boottime/boot_time_monitor.h"
#include "boottime/boot_event_watch.h"
#include "boottime/event_log_boot_events.h"
#include "boottime/win_service_start_monitor.h"
#include "common/unique_handle.h"
#include "fake_wevtapi/fake_wevtapi.h"
#include "fakes.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

using testing::Logged;
using Event = BootTimeMonitor::WinBootEvent;
constexpr DWORD kDeadlineMs = 10000;
constexpr std::uint32_t kTick = 30000;

class BootEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library.reset(::LoadLibraryW(DoublePath().c_str()));
    ASSERT_TRUE(library) << "the wevtapi.dll double is not beside the test";
    reset = Bind<fakewevt::ResetFn>("FakeWevtReset");
    add = Bind<fakewevt::AddEventFn>("FakeWevtAddEvent");
    getStats = Bind<fakewevt::GetStatsFn>("FakeWevtGetStats");
    waitDelivered = Bind<fakewevt::WaitDeliveredFn>("FakeWevtWaitDelivered");
    queryFails = Bind<fakewevt::SetQueryFailsFn>("FakeWevtSetQueryFails");
    ASSERT_TRUE(reset && add && getStats && waitDelivered && queryFails);
    reset();
    clock.tick = kTick;
  }
  static std::wstring DoublePath() { return testsupport::ExeFolder() + L"wevtapi.dll"; }
  template <class Fn>
  Fn Bind(const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(library.get(), name)));
  }
  fakewevt::Stats Stats() {
    fakewevt::Stats stats{};
    getStats(&stats);
    return stats;
  }
  // A creation time `ms` after the moment Start runs (negative: before it).
  std::uint64_t Created(std::int64_t ms) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(clock.WallClock()) + ms) * 10000;
  }
  // Starts watching and waits for the real "RpcSs" notification to subscribe.
  void StartSubscribed(Event& event) {
    ASSERT_TRUE(event.Start());
    const DWORD start = ::GetTickCount();
    while (Stats().subscriptions == 0 && !event.Done() && ::GetTickCount() - start < kDeadlineMs) {
      ::WaitForSingleObject(never.get(), 20);
    }
    ASSERT_EQ(Stats().subscriptions, 1u) << "no subscription after the RpcSs notification; result "
                                          << event.ResultState();
  }
  bool WaitDone(Event& event) { return ::WaitForSingleObject(event.DoneEvent(), kDeadlineMs) == WAIT_OBJECT_0; }

  testsupport::CapturedLog log;
  ky::unique_module library;
  fakewevt::ResetFn reset = nullptr;
  fakewevt::AddEventFn add = nullptr;
  fakewevt::GetStatsFn getStats = nullptr;
  fakewevt::WaitDeliveredFn waitDelivered = nullptr;
  fakewevt::SetQueryFailsFn queryFails = nullptr;
  testing::FakeClock clock;
  ky::unique_handle never{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TEST_F(BootEventTest, OnlyAnEventOfThisBootCreatedAfterStartGivesItsTime) {
  add(Created(-3'600'000), 90000, fakewevt::kUInt32);  // an earlier boot's, already logged
  Event event(clock, DoublePath());
  StartSubscribed(event);
  EXPECT_EQ(Stats().bookmarkRecord, 1) << "the subscription starts after the newest logged event";
  EXPECT_EQ(event.ResultState(), Event::kResultWaiting);

  add(Created(-static_cast<std::int64_t>(kTick) - 1), 80000, fakewevt::kUInt32);  // created before the system started
  ASSERT_TRUE(waitDelivered(1, kDeadlineMs));
  EXPECT_FALSE(event.Done()) << "an earlier boot's event leaves the wait open";
  EXPECT_EQ(event.ResultState(), Event::kResultWaiting);

  add(Created(1500), 102026, fakewevt::kUInt32);
  ASSERT_TRUE(WaitDone(event));
  EXPECT_EQ(event.ResultState(), Event::kResultFound);
  EXPECT_EQ(event.BootTime(), 102026u);

  add(Created(2500), 5, fakewevt::kUInt32);
  ASSERT_TRUE(waitDelivered(3, kDeadlineMs));
  EXPECT_EQ(event.BootTime(), 102026u) << "only the first accepted event counts";

  event.OnServiceStarted(L"RpcSs");
  EXPECT_EQ(Stats().subscriptions, 1u) << "a second RpcSs notification does not subscribe again";
  event.Stop();
  EXPECT_FALSE(event.Done()) << "Stop resets the done event";
  EXPECT_EQ(Stats().openHandles, 0u) << "every handle is closed through EvtClose";
  EXPECT_EQ(Stats().foreignHandles, 0u) << "no call on a handle the library did not hand out";
}

TEST_F(BootEventTest, ThisBootsEventCreatedBeforeStartGivesThreeAndNoTime) {
  add(Created(-3'600'000), 90000, fakewevt::kUInt32);
  Event event(clock, DoublePath());
  StartSubscribed(event);
  add(Created(-1000), 41000, fakewevt::kUInt32);
  ASSERT_TRUE(WaitDone(event));
  EXPECT_EQ(event.ResultState(), Event::kResultBeforeStart);
  EXPECT_EQ(event.BootTime(), 0u);
}

TEST_F(BootEventTest, AMissingOrMistypedBootTimeFails) {
  for (std::uint32_t kind : {fakewevt::kMissing, fakewevt::kAsString}) {
    reset();
    add(Created(-3'600'000), 90000, fakewevt::kUInt32);
    Event event(clock, DoublePath());
    StartSubscribed(event);
    add(Created(1000), 0, kind);
    ASSERT_TRUE(WaitDone(event)) << kind;
    EXPECT_EQ(event.ResultState(), Event::kResultFailed) << kind;
    event.Stop();
  }
}

TEST_F(BootEventTest, AnEmptyChannelCannotBeSubscribedAndTheMonitorRetries) {
  testing::FakeCounters counters;
  BootTimeData data;
  BootTimeMonitor monitor(clock, counters);
  ASSERT_EQ(monitor.Init(nullptr, &data), 0u);
  Event& event = *monitor.BootEvent();
  ASSERT_TRUE(event.Start());
  ASSERT_TRUE(WaitDone(event)) << "no bookmark: the subscription fails";
  EXPECT_EQ(event.ResultState(), Event::kResultFailed);
  EXPECT_TRUE(log.contains(L"GetLastBootEventTime failed 0x103")) << "no event yet: only logged";
  EXPECT_TRUE(log.contains(L"EvtSubscribe failed 0x57"));
  EXPECT_TRUE(log.contains(L"WinBootEvents Subscribe failed 0x57"));

  add(Created(-3'600'000), 90000, fakewevt::kUInt32);
  EXPECT_FALSE(monitor.IsBootFinished()) << "a failed watch does not end the boot";
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::IsBootFinished", L"WinBootEvent retry"));
  EXPECT_FALSE(event.Done()) << "the retry subscribed";
  EXPECT_EQ(Stats().subscriptions, 1u);
  add(Created(1000), 777, fakewevt::kUInt32);
  ASSERT_TRUE(WaitDone(event));
  EXPECT_TRUE(monitor.IsBootFinished());
  std::uint32_t bootTime = 0;
  EXPECT_EQ(monitor.Result(&bootTime), 0u);
  EXPECT_EQ(bootTime, 777u);
  monitor.UnInit();
}

// Creation times compare by their upper 32 bits only (steps of about 429 s), as they always have.
TEST_F(BootEventTest, TheSubscriptionStartsAfterTheNewestEventWhoseUpperHalfIsNotLater) {
  constexpr std::uint64_t kHigh = std::uint64_t{0x01DA0000} << 32;
  add(kHigh, 1, fakewevt::kUInt32);
  add(kHigh + 0xFFFF0000u, 2, fakewevt::kUInt32);  // later, same upper half
  add(kHigh + (std::uint64_t{1} << 32), 3, fakewevt::kUInt32);
  CWinBootEvents events(DoublePath());
  ASSERT_TRUE(events.Init());
  Event observer(clock, DoublePath());  // never started: what it is told changes nothing here
  {
    CWinBootEvents::Subscription subscription(events, &observer);
    ASSERT_TRUE(subscription.Init(testing::ToFileTime(kHigh)));
    EXPECT_EQ(Stats().bookmarkRecord, 2) << "the later event of the same upper half is not skipped";
  }
  EXPECT_EQ(Stats().openHandles, 0u);
}

TEST_F(BootEventTest, AQueryThatFailsWithoutAnErrorAsWinesDoesEndsTheWaitWithOne) {
  add(Created(-3'600'000), 90000, fakewevt::kUInt32);
  queryFails(true);
  Event event(clock, DoublePath());
  ASSERT_TRUE(event.Start());
  ASSERT_TRUE(WaitDone(event));
  EXPECT_EQ(event.ResultState(), Event::kResultFailed);
  EXPECT_TRUE(log.contains(L"GetLastBootEventTime failed 0x0"));
  EXPECT_TRUE(log.contains(L"OpenEventSet failed 0x0"));
  EXPECT_TRUE(log.contains(L"WinBootEvents Subscribe failed 0x0"));
  event.Stop();
  EXPECT_EQ(Stats().openHandles, 0u);
  EXPECT_EQ(Stats().foreignHandles, 0u) << "nothing is called on the handle that was not given";
}

TEST_F(BootEventTest, ALibraryWithoutOneOfTheEightFunctionsFailsAtOnce) {
  Event event(clock, testsupport::ExeFolder() + L"partial\\wevtapi.dll");
  EXPECT_FALSE(event.Start());
  EXPECT_TRUE(event.Done());
  EXPECT_EQ(event.ResultState(), Event::kResultFailed);
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::WinBootEvent::Start", L"WinBootEvents init failed"));
  EXPECT_TRUE(log.contains(L"EvtUpdateBookmark missing"));
}

class CountingObserver final : public IWinServiceStartMonitorObserver {
 public:
  void OnServiceStarted(const wchar_t*) override { ++calls; }
  std::atomic<int> calls{0};
};

// A service that never runs is not watched here: Wine's service manager keeps a thread
// blocked for each notification left waiting, for as long as the prefix lives.
TEST(WinServiceStartMonitor, StopsBeforeOrAfterTheAnswerAndRefusesAServiceThatIsNotThere) {
  CountingObserver observer;
  for (int i = 0; i < 10; ++i) {
    WinServiceStartMonitor running(L"RpcSs", &observer);
    ASSERT_TRUE(running.Start()) << i;
    running.Stop();
  }
  EXPECT_LE(observer.calls, 10) << "at most one call per start";
  WinServiceStartMonitor missing(L"NoSuchService.Lumera", &observer);
  EXPECT_FALSE(missing.Start());
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
}

TEST_F(BootEventTest, TheMonitorStopsAtThisBootsEventButKeepsItsOwnMeasure) {
  add(Created(-3'600'000), 90000, fakewevt::kUInt32);
  testing::FakeClock staged;
  staged.tick = kTick;
  testing::FakeCounters failing;  // every process is dropped at its first sample
  BootTimeData data;
  BootTimeMonitor monitor(staged, failing);
  ASSERT_EQ(monitor.Init(nullptr, &data), 0u);
  staged.onWait = [&] {
    if (staged.waits != 1) return;
    const DWORD start = ::GetTickCount();
    while (Stats().subscriptions == 0 && ::GetTickCount() - start < kDeadlineMs) ::WaitForSingleObject(never.get(), 20);
    add((staged.WallClock() + 500) * 10000, 102026, fakewevt::kUInt32);
    ::WaitForSingleObject(monitor.BootEvent()->DoneEvent(), kDeadlineMs);
  };
  monitor.Start(never.get());
  std::uint32_t bootTime = 1;
  EXPECT_EQ(monitor.Result(&bootTime), 0u);
  EXPECT_EQ(staged.waits, 1) << "the first check after the event ends the loop";
  EXPECT_TRUE(Logged(log, L"BootTimeMonitor::IsBootFinished", L"WinBootEvent time=102026"));
  EXPECT_EQ(bootTime, 0u) << "the event only ends the loop; no process was busy";
  monitor.UnInit();
  EXPECT_EQ(Stats().openHandles, 0u);
}

}  // namespace
}  // namespace boottime
