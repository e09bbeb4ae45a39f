// boottime_child.exe, a real child process that runs until it is told to end.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "common/unique_handle.h"
#include "support/programs.h"
#include "support/scratch_folder.h"

namespace testing_boottime {

class Child {
 public:
  Child() {
    eventName_ = L"boottime_child_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count_);
    done_.reset(::CreateEventW(nullptr, TRUE, FALSE, eventName_.c_str()));
    process_ = testsupport::StartProgram(L"\"" + testsupport::ExeFolder() + L"boottime_child.exe\" " + eventName_);
    pid_ = process_ ? ::GetProcessId(process_.get()) : 0;
  }
  ~Child() { End(); }
  std::uint32_t Pid() const { return pid_; }
  // Asks the child to end and waits (bounded) until it has.
  bool End() {
    if (!process_) return true;
    ::SetEvent(done_.get());
    const bool ended = ::WaitForSingleObject(process_.get(), 15000) == WAIT_OBJECT_0;
    process_.reset();
    return ended;
  }

 private:
  static inline int count_ = 0;
  std::wstring eventName_;
  ky::unique_handle done_;
  ky::unique_handle process_;
  std::uint32_t pid_ = 0;
};

}  // namespace testing_boottime
