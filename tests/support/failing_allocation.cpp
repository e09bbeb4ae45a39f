#include "support/failing_allocation.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// A thread id rather than a thread_local flag: the flag's own storage may be allocated lazily.
std::atomic<DWORD> g_failingThread{0};

void* Allocate(std::size_t size) {
  if (g_failingThread.load(std::memory_order_relaxed) == ::GetCurrentThreadId()) {
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace testsupport {

FailAllocations::FailAllocations() { g_failingThread = ::GetCurrentThreadId(); }
FailAllocations::~FailAllocations() { g_failingThread = 0; }

}  // namespace testsupport
