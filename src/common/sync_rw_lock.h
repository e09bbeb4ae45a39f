// Re-entrant reader-writer lock: readers and the writer may recurse, the writer may take
// read locks inside its write lock, waiting writers go before new readers, and a leaving
// writer wakes every waiting reader at once. No upgrade from read to write.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <stdexcept>

#include "common/unique_handle.h"

// Thrown for releasing what the thread does not hold, or asking to upgrade a read lock.
class SyncRWLockUsageError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

struct ISyncRWLock {
  // Each operation takes a thread id; 0 means the calling thread.
  virtual void AcquireRead(DWORD threadId = 0) = 0;    // slot 0
  virtual void ReleaseRead(DWORD threadId = 0) = 0;    // slot 1
  virtual void AcquireWrite(DWORD threadId = 0) = 0;   // slot 2
  virtual void ReleaseWrite(DWORD threadId = 0) = 0;   // slot 3

 protected:
  ~ISyncRWLock() = default;
};

class CSyncRWLock final : public ISyncRWLock {
 public:
  CSyncRWLock();
  ~CSyncRWLock();
  CSyncRWLock(const CSyncRWLock&) = delete;
  CSyncRWLock& operator=(const CSyncRWLock&) = delete;

  void AcquireRead(DWORD threadId = 0) override;
  void ReleaseRead(DWORD threadId = 0) override;
  void AcquireWrite(DWORD threadId = 0) override;
  void ReleaseWrite(DWORD threadId = 0) override;

 private:
  void WaitAsReader(DWORD threadId);
  void ReleaseWriterLocked();

  CRITICAL_SECTION guard_;
  ky::unique_handle readerGate_;
  ky::unique_handle writerGate_;
  std::uint32_t waitingReaders_ = 0;
  std::uint32_t waitingWriters_ = 0;
  std::uint32_t activeReaders_ = 0;
  std::uint32_t writerActive_ = 0;
  DWORD writerThread_ = 0;
  std::uint32_t writerReadDepth_ = 0;
  std::uint32_t writerWriteDepth_ = 0;
  std::map<DWORD, std::uint32_t> readers_;
};

// Holds `lock` in one mode for its own life, on the calling thread.
template <void (ISyncRWLock::*Acquire)(DWORD), void (ISyncRWLock::*Release)(DWORD)>
class ScopedRWLock {
 public:
  explicit ScopedRWLock(ISyncRWLock& lock) : lock_(lock) { (lock_.*Acquire)(0); }
  ~ScopedRWLock() { (lock_.*Release)(0); }
  ScopedRWLock(const ScopedRWLock&) = delete;
  ScopedRWLock& operator=(const ScopedRWLock&) = delete;

 private:
  ISyncRWLock& lock_;
};
using SharedLock = ScopedRWLock<&ISyncRWLock::AcquireRead, &ISyncRWLock::ReleaseRead>;
using ExclusiveLock = ScopedRWLock<&ISyncRWLock::AcquireWrite, &ISyncRWLock::ReleaseWrite>;
