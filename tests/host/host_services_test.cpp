// What the module reaches through IServMain: the host's component manager and the serial
// executions of its event queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <numeric>
#include <set>
#include <vector>

#include "common/log.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "event_queue.h"
#include "lumera/interface_ids.h"
#include "lumera/productinfo.h"
#include "plugins/wmiprocess_snapshot.h"
#include "support/captured_log.h"
#include "support/failing_allocation.h"
#include "support/test_thread.h"

namespace {

TEST(ComponentManager, HandsOutHostPluginsByNameWithoutRegardToCaseAndCountsThem) {
  host::HostConfig config;
  config.folders[L"2:common"] = L"C:\\Data";
  host::ComponentManager manager(config);
  IServMain* servMain = &manager;
  IPlgComponentManager* components = servMain->GetComponentManager();
  ASSERT_NE(components, nullptr);

  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(components->GetPlugin(L"productinfo", lumera::ids::ProductInfoPlugin, &first), 0u);
  ASSERT_EQ(components->GetPlugin(L"ProductInfo", lumera::ids::ProductInfoPlugin, &second), 0u);
  EXPECT_EQ(first, second) << "one instance per name";
  EXPECT_STREQ(static_cast<IProductInfo*>(first)->GetFolder(2, L"common"), L"C:\\Data");
  EXPECT_EQ(manager.OutstandingCount(L"productinfo"), 2);

  EXPECT_EQ(components->ReleasePlugin(L"productinfo"), 0u);
  EXPECT_EQ(components->ReleasePlugin(L"PRODUCTINFO"), 0u);
  EXPECT_EQ(components->ReleasePlugin(L"productinfo"), static_cast<std::uint32_t>(ERROR_NOT_FOUND))
      << "a release without a matching get is refused";

  void* out = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(manager.GetPlugin(L"nosuchplugin", lumera::ids::IServPlugin, &out), static_cast<std::uint32_t>(ERROR_NOT_FOUND));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(manager.GetPlugin(L"productinfo", lumera::ids::IBootTime, &out), static_cast<std::uint32_t>(ERROR_NOT_FOUND));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(manager.OutstandingCount(L"productinfo"), 0) << "a refused get is not counted";
}

struct Journal {
  std::mutex lock;
  std::vector<int> order;
  std::set<DWORD> threads;
  std::atomic<int> running{0}, overlap{0}, released{0};
};

class RecordingItem final : public EqWorkItem {
 public:
  RecordingItem(Journal& journal, int number, HANDLE gate = nullptr) : journal_(journal), number_(number), gate_(gate) {}
  void Release() override {
    ++journal_.released;
    delete this;
  }
  void Execute() override {
    if (throws) throw std::bad_alloc();
    if (++journal_.running > 1) ++journal_.overlap;
    if (gate_ != nullptr) ::WaitForSingleObject(gate_, 10000);
    {
      std::lock_guard hold(journal_.lock);
      journal_.order.push_back(number_);
      journal_.threads.insert(::GetCurrentThreadId());
    }
    --journal_.running;
  }

  bool throws = false;

 private:
  Journal& journal_;
  int number_;
  HANDLE gate_;
};

bool WaitFor(const std::atomic<int>& count, int wanted) {
  return testsupport::WaitUntil([&] { return count.load() == wanted; }, 5000);
}

// Wine lists a starting process before its image name is known.
TEST(ProcessSnapshots, ANameThatAppearsIsTheSameProcessAndAReplacedOneIsAReusedPid) {
  auto entry = [](std::uint32_t pid, std::uint32_t ppid, const wchar_t* name) {
    host::ProcessEntry process;
    process.pid = pid;
    process.ppid = ppid;
    process.name = name;
    return process;
  };
  const host::ProcessSnapshot before = {
      {32, entry(32, 0, L"")}, {40, entry(40, 8, L"a.exe")}, {48, entry(48, 8, L"b.exe")}};
  const host::ProcessSnapshot now = {{32, entry(32, 0, L"start.exe")}, {40, entry(40, 8, L"c.exe")},
                                     {48, entry(48, 9, L"b.exe")}, {56, entry(56, 8, L"")}};
  std::vector<std::uint32_t> started, ended;
  host::DiffSnapshots(before, now, started, ended);
  EXPECT_EQ(started, (std::vector<std::uint32_t>{40, 48, 56}));
  EXPECT_EQ(ended, (std::vector<std::uint32_t>{40, 48}));
}

TEST(SerialExecution, RunsItemsOneAtATimeInPostingOrderOnOneThread) {
  host::EventQueue queue;
  ISerialExecution* execution = nullptr;
  ASSERT_EQ(queue.createSerialExecution(&execution), 0u);
  Journal journal;
  constexpr int kItems = 50;
  for (int i = 0; i < kItems; ++i) ASSERT_EQ(execution->Post(L"item", new RecordingItem(journal, i)), 0u);
  ASSERT_TRUE(WaitFor(journal.released, kItems));
  EXPECT_EQ(journal.overlap.load(), 0);
  EXPECT_EQ(journal.threads.size(), 1u);
  std::vector<int> expected(kItems);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(journal.order, expected);
  EXPECT_EQ(queue.destroySerialExecution(execution), 0u);
}

TEST(SerialExecution, DestroyFinishesTheRunningItemAndReleasesTheRestUnrun) {
  host::EventQueue queue;
  ISerialExecution* execution = nullptr;
  ASSERT_EQ(queue.createSerialExecution(&execution), 0u);
  Journal journal;
  ky::unique_handle gate(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ASSERT_EQ(execution->Post(L"blocking", new RecordingItem(journal, 1, gate.get())), 0u);
  ASSERT_TRUE(WaitFor(journal.running, 1));
  for (int i = 2; i <= 4; ++i) ASSERT_EQ(execution->Post(L"queued", new RecordingItem(journal, i)), 0u);
  ::SetEvent(gate.get());
  EXPECT_EQ(queue.destroySerialExecution(execution), 0u);
  EXPECT_EQ(journal.released.load(), 4) << "every item is released exactly once";
  EXPECT_EQ(journal.order.front(), 1);
  EXPECT_EQ(queue.destroySerialExecution(execution), static_cast<std::uint32_t>(ERROR_NOT_FOUND));
}

TEST(SerialExecution, AnAllocationFailureInPostOrInAnItemIsACodeAndALogLineAndTheQueueGoesOn) {
  logging::LogRef keep;  // the log adapter is made before allocations fail
  testsupport::CapturedLog log;
  host::EventQueue queue;
  ISerialExecution* execution = nullptr;
  ASSERT_EQ(queue.createSerialExecution(&execution), 0u);
  Journal journal;
  constexpr int kItems = 300;
  std::vector<EqWorkItem*> items;
  for (int i = 0; i < kItems; ++i) items.push_back(new RecordingItem(journal, i));
  // The queue grows in blocks, so some post soon has to allocate.
  int posted = 0;
  std::uint32_t failed = 0;
  {
    testsupport::FailAllocations fail;
    while (posted < kItems && failed == 0) failed = execution->Post(L"item", items[posted++]);
  }
  EXPECT_EQ(failed, 31u) << "after " << posted << " posts";
  for (int i = posted; i < kItems; ++i) items[i]->Release();
  auto* throwing = new RecordingItem(journal, -1);
  throwing->throws = true;
  ASSERT_EQ(execution->Post(L"throwing", throwing), 0u);
  ASSERT_EQ(execution->Post(L"after", new RecordingItem(journal, 1000)), 0u);
  ASSERT_TRUE(WaitFor(journal.released, kItems + 2)) << "the refused item is released too: Post owns it either way";
  EXPECT_EQ(journal.order.size(), static_cast<std::size_t>(posted)) << "every queued item ran, the throwing one aside";
  EXPECT_EQ(journal.order.back(), 1000);
  EXPECT_EQ(log.countUnder(L"host::SerialExecution::Post", L"exception: out of memory"), 1u);
  EXPECT_EQ(log.countUnder(L"host::SerialExecution::Run", L"exception: out of memory"), 1u);
  EXPECT_EQ(queue.destroySerialExecution(execution), 0u);
}

}  // namespace
