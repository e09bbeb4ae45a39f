// Allocation failure on demand: a test program that links lumera_failing_allocation gets a
// replaced global operator new that throws std::bad_alloc on the one thread a FailAllocations
// names, for as long as it lives; every other thread allocates as usual.
#pragma once

namespace testsupport {

class FailAllocations {
 public:
  // Every operator new on the calling thread fails from here until destruction.
  FailAllocations();
  ~FailAllocations();
  FailAllocations(const FailAllocations&) = delete;
  FailAllocations& operator=(const FailAllocations&) = delete;
};

}  // namespace testsupport
