#include "common/sync_rw_lock.h"

namespace {

constexpr LONG kGateMaximum = 0x7FFFFFFF;

DWORD Resolve(DWORD threadId) { return threadId != 0 ? threadId : ::GetCurrentThreadId(); }

class GuardHolder {
 public:
  explicit GuardHolder(CRITICAL_SECTION& cs) : cs_(cs) { ::EnterCriticalSection(&cs_); }
  ~GuardHolder() {
    if (held_) ::LeaveCriticalSection(&cs_);
  }
  void Leave() {
    ::LeaveCriticalSection(&cs_);
    held_ = false;
  }
  void Enter() {
    ::EnterCriticalSection(&cs_);
    held_ = true;
  }

 private:
  CRITICAL_SECTION& cs_;
  bool held_ = true;
};

}  // namespace

CSyncRWLock::CSyncRWLock()
    : readerGate_(::CreateSemaphoreW(nullptr, 0, kGateMaximum, nullptr)),
      writerGate_(::CreateSemaphoreW(nullptr, 0, kGateMaximum, nullptr)) {
  ::InitializeCriticalSection(&guard_);
}

CSyncRWLock::~CSyncRWLock() { ::DeleteCriticalSection(&guard_); }

// The releasing writer has already counted this thread as an active reader.
void CSyncRWLock::WaitAsReader(DWORD threadId) {
  ++waitingReaders_;
  ::LeaveCriticalSection(&guard_);
  ::WaitForSingleObject(readerGate_.get(), INFINITE);
  ::EnterCriticalSection(&guard_);
  readers_[threadId] = 1;
}

void CSyncRWLock::AcquireRead(DWORD threadId) {
  threadId = Resolve(threadId);
  GuardHolder guard(guard_);
  if (activeReaders_ > 0) {
    auto it = readers_.find(threadId);
    if (it != readers_.end()) {
      ++it->second;
    } else if (waitingWriters_ > 0) {
      WaitAsReader(threadId);
    } else {
      readers_[threadId] = 1;
      ++activeReaders_;
    }
    return;
  }
  if (writerActive_ != 0) {
    if (writerThread_ == threadId) {
      ++writerReadDepth_;
    } else {
      WaitAsReader(threadId);
    }
    return;
  }
  if (waitingWriters_ > 0) {
    WaitAsReader(threadId);
    return;
  }
  readers_[threadId] = 1;
  activeReaders_ = 1;
}

void CSyncRWLock::ReleaseRead(DWORD threadId) {
  threadId = Resolve(threadId);
  GuardHolder guard(guard_);
  if (activeReaders_ == 0) {
    if (writerActive_ == 0 || writerThread_ != threadId || writerReadDepth_ == 0) {
      throw SyncRWLockUsageError("CSyncRWLock: read lock released by a thread that does not hold it");
    }
    --writerReadDepth_;
    if (writerReadDepth_ == 0 && writerWriteDepth_ == 0) ReleaseWriterLocked();
    return;
  }
  auto it = readers_.find(threadId);
  if (it == readers_.end()) {
    throw SyncRWLockUsageError("CSyncRWLock: read lock released by a thread that does not hold it");
  }
  if (it->second > 1) {
    --it->second;
    return;
  }
  readers_.erase(it);
  --activeReaders_;
  if (activeReaders_ == 0 && waitingWriters_ > 0) {
    ++writerActive_;
    --waitingWriters_;
    ::ReleaseSemaphore(writerGate_.get(), 1, nullptr);
  }
}

void CSyncRWLock::AcquireWrite(DWORD threadId) {
  threadId = Resolve(threadId);
  GuardHolder guard(guard_);
  if (activeReaders_ == 0 && writerActive_ == 0) {
    writerActive_ = 1;
    writerThread_ = threadId;
    writerReadDepth_ = 0;
    writerWriteDepth_ = 1;
    return;
  }
  if (activeReaders_ == 0 && writerThread_ == threadId) {
    ++writerWriteDepth_;
    return;
  }
  if (readers_.count(threadId) != 0) {
    throw SyncRWLockUsageError("CSyncRWLock: a read lock cannot be upgraded to a write lock");
  }
  ++waitingWriters_;
  guard.Leave();
  ::WaitForSingleObject(writerGate_.get(), INFINITE);
  guard.Enter();
  // The releasing side already raised writerActive_ on this writer's behalf.
  writerThread_ = threadId;
  writerReadDepth_ = 0;
  writerWriteDepth_ = 1;
}

void CSyncRWLock::ReleaseWrite(DWORD threadId) {
  threadId = Resolve(threadId);
  GuardHolder guard(guard_);
  if (writerActive_ == 0 || writerThread_ != threadId || writerWriteDepth_ == 0) {
    throw SyncRWLockUsageError("CSyncRWLock: write lock released by a thread that does not hold it");
  }
  --writerWriteDepth_;
  if (writerWriteDepth_ == 0 && writerReadDepth_ == 0) ReleaseWriterLocked();
}

void CSyncRWLock::ReleaseWriterLocked() {
  --writerActive_;
  writerThread_ = 0;
  if (waitingWriters_ > 0) {
    --waitingWriters_;
    ++writerActive_;
    ::ReleaseSemaphore(writerGate_.get(), 1, nullptr);
  } else if (waitingReaders_ > 0) {
    activeReaders_ = waitingReaders_;
    const LONG count = static_cast<LONG>(waitingReaders_);
    waitingReaders_ = 0;
    ::ReleaseSemaphore(readerGate_.get(), count, nullptr);
  }
}
