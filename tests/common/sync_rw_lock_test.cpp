#include "common/sync_rw_lock.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>

#include "support/test_thread.h"

namespace {

using testsupport::Event;
using testsupport::kLongWait;
using testsupport::kShortWait;
using testsupport::TestThread;

// A thread that takes the read or write lock, reports it, and holds it until told to let go.
class Holder {
 public:
  Holder(ISyncRWLock& lock, bool write)
      : thread_([this, &lock, write] {
          started.set();
          write ? lock.AcquireWrite() : lock.AcquireRead();
          holding.set();
          letGo.waitFor(kLongWait);
          write ? lock.ReleaseWrite() : lock.ReleaseRead();
        }) {}
  ~Holder() { letGo.set(); }

  Event started, holding, letGo;

 private:
  TestThread thread_;  // last, so that it ends before the events go
};

struct Reader : Holder { explicit Reader(ISyncRWLock& lock) : Holder(lock, false) {} };
struct Writer : Holder { explicit Writer(ISyncRWLock& lock) : Holder(lock, true) {} };

TEST(SyncRWLock, ReadLockTakenTwiceNeedsTwoReleases) {
  CSyncRWLock lock;
  lock.AcquireRead();
  lock.AcquireRead();
  Writer writer(lock);
  lock.ReleaseRead();
  EXPECT_FALSE(writer.holding.waitFor(kShortWait));
  lock.ReleaseRead();
  EXPECT_TRUE(writer.holding.waitFor(kLongWait));
}

TEST(SyncRWLock, WriterKeepsTheLockUntilWriteAndReadDepthsAreZero) {
  for (const bool writeDepthFirst : {true, false}) {
    SCOPED_TRACE(writeDepthFirst ? "write depth released first" : "read depth released first");
    CSyncRWLock lock;
    lock.AcquireWrite();
    lock.AcquireWrite();
    lock.AcquireRead();
    Reader reader(lock);
    ASSERT_TRUE(reader.started.waitFor(kLongWait));
    if (writeDepthFirst) {
      lock.ReleaseWrite();
      lock.ReleaseWrite();
    } else {
      lock.ReleaseRead();
      lock.ReleaseWrite();
    }
    EXPECT_FALSE(reader.holding.waitFor(kShortWait));
    writeDepthFirst ? lock.ReleaseRead() : lock.ReleaseWrite();
    EXPECT_TRUE(reader.holding.waitFor(kLongWait));
  }
}

TEST(SyncRWLock, NewReaderWaitsBehindWaitingWriterWhileOthersRead) {
  CSyncRWLock lock;
  lock.AcquireRead();
  Writer writer(lock);
  // Nothing outside the lock shows when the writer has queued, so new readers are tried
  // until one is held back; each that gets in leaves again at once.
  std::unique_ptr<Reader> heldBack;
  const ULONGLONG deadline = ::GetTickCount64() + kLongWait;
  while (!heldBack && ::GetTickCount64() < deadline) {
    auto reader = std::make_unique<Reader>(lock);
    if (!reader->holding.waitFor(kShortWait)) heldBack = std::move(reader);
  }
  ASSERT_TRUE(heldBack) << "no new reader was held back by the waiting writer";
  EXPECT_FALSE(writer.holding.isSet());

  lock.ReleaseRead();
  EXPECT_TRUE(writer.holding.waitFor(kLongWait));
  EXPECT_FALSE(heldBack->holding.isSet());
  writer.letGo.set();
  EXPECT_TRUE(heldBack->holding.waitFor(kLongWait));
}

TEST(SyncRWLock, ReadersQueuedBehindWriterAllEnterOnItsSingleRelease) {
  CSyncRWLock lock;
  lock.AcquireWrite();
  std::array<std::unique_ptr<Reader>, 3> readers;
  std::array<HANDLE, 3> holding{};
  for (std::size_t i = 0; i < readers.size(); ++i) {
    readers[i] = std::make_unique<Reader>(lock);
    holding[i] = readers[i]->holding.get();
    ASSERT_TRUE(readers[i]->started.waitFor(kLongWait));
  }
  EXPECT_EQ(::WaitForMultipleObjects(3, holding.data(), FALSE, kShortWait), static_cast<DWORD>(WAIT_TIMEOUT));

  lock.ReleaseWrite();
  // All three hold the lock at the same time: none lets go before being told to.
  EXPECT_EQ(::WaitForMultipleObjects(3, holding.data(), TRUE, kLongWait), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST(SyncRWLock, UsageErrorsThrowAndLeaveTheLockUsable) {
  CSyncRWLock lock;
  const DWORD other = ::GetCurrentThreadId() ^ 0x10000;
  EXPECT_THROW(lock.ReleaseRead(), SyncRWLockUsageError);
  EXPECT_THROW(lock.ReleaseWrite(), SyncRWLockUsageError);

  lock.AcquireRead();
  EXPECT_THROW(lock.AcquireWrite(), SyncRWLockUsageError);
  EXPECT_THROW(lock.ReleaseWrite(), SyncRWLockUsageError);
  EXPECT_THROW(lock.ReleaseRead(other), SyncRWLockUsageError);
  lock.ReleaseRead();

  lock.AcquireWrite();
  EXPECT_THROW(lock.ReleaseWrite(other), SyncRWLockUsageError);
  EXPECT_THROW(lock.ReleaseRead(), SyncRWLockUsageError);
  lock.ReleaseWrite();

  Writer writer(lock);
  EXPECT_TRUE(writer.holding.waitFor(kLongWait));
}

}  // namespace
