// Serial executions of the host's event queue.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <numeric>
#include <set>
#include <vector>

#include "common/unique_handle.h"
#include "event_queue.h"

namespace {

struct Journal {
  std::mutex lock;
  std::vector<int> order;
  std::set<DWORD> threads;
  std::atomic<int> running{0};
  std::atomic<int> overlap{0};
  std::atomic<int> released{0};
};

class RecordingItem final : public EqWorkItem {
 public:
  RecordingItem(Journal& journal, int number, HANDLE gate = nullptr) : journal_(journal), number_(number), gate_(gate) {}
  void Release() override {
    ++journal_.released;
    delete this;
  }
  void Execute() override {
    if (++journal_.running > 1) ++journal_.overlap;
    if (gate_ != nullptr) ::WaitForSingleObject(gate_, 10000);
    {
      std::lock_guard hold(journal_.lock);
      journal_.order.push_back(number_);
      journal_.threads.insert(::GetCurrentThreadId());
    }
    --journal_.running;
  }

 private:
  Journal& journal_;
  int number_;
  HANDLE gate_;
};

bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 1000 && !done(); ++i) ::Sleep(5);
  return done();
}

TEST(SerialExecution, RunsItemsOneAtATimeInPostingOrderOnOneThread) {
  host::EventQueue queue;
  ISerialExecution* execution = nullptr;
  ASSERT_EQ(queue.createSerialExecution(&execution), 0u);
  Journal journal;
  constexpr int kItems = 50;
  for (int i = 0; i < kItems; ++i) ASSERT_EQ(execution->Post(L"item", new RecordingItem(journal, i)), 0u);
  ASSERT_TRUE(WaitFor([&] { return journal.released.load() == kItems; }));
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
  ASSERT_TRUE(WaitFor([&] { return journal.running.load() == 1; }));
  for (int i = 2; i <= 4; ++i) ASSERT_EQ(execution->Post(L"queued", new RecordingItem(journal, i)), 0u);
  ::SetEvent(gate.get());
  EXPECT_EQ(queue.destroySerialExecution(execution), 0u);
  EXPECT_EQ(journal.released.load(), 4) << "every item is released exactly once";
  EXPECT_EQ(journal.order.front(), 1);
  EXPECT_EQ(queue.destroySerialExecution(execution), static_cast<std::uint32_t>(ERROR_NOT_FOUND));
}

}  // namespace
