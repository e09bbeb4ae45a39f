#include "support/test_thread.h"

#include <cstdio>

namespace testsupport {

bool WaitUntil(const std::function<bool()>& condition, DWORD ms) {
  static const Event never;  // one for the process, so that waiting opens no handle a leak count could see
  const ULONGLONG end = ::GetTickCount64() + ms;
  while (!condition()) {
    if (::GetTickCount64() >= end) return false;
    ::WaitForSingleObject(never.get(), 5);
  }
  return true;
}

TestThread::TestThread(std::function<void()> body) : body_(std::move(body)) {
  thread_.reset(::CreateThread(nullptr, 0, &TestThread::Run, this, 0, &id_));
}

TestThread::~TestThread() {
  if (!thread_ || join(kLongWait)) return;
  // Only a failed test leaves a thread blocked this long; ending it lets the run report the
  // failure instead of hanging until the harness gives up.
  std::fprintf(stderr, "test thread %lu still blocked after %lu ms; terminating it\n",
               static_cast<unsigned long>(id_), static_cast<unsigned long>(kLongWait));
  ::TerminateThread(thread_.get(), 1);
}

bool TestThread::join(DWORD ms) { return thread_ && ::WaitForSingleObject(thread_.get(), ms) == WAIT_OBJECT_0; }

DWORD WINAPI TestThread::Run(void* self) {
  auto* thread = static_cast<TestThread*>(self);
  try {
    thread->body_();
  } catch (...) {  // an escaping exception must not end the whole test program
  }
  return 0;
}

}  // namespace testsupport
