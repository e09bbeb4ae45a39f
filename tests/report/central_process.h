// lumeracentral.exe started in the background for tests, and the wait for its pipe.
#pragma once

#include <windows.h>

#include <string>

#include "common/unique_handle.h"
#include "support/programs.h"
#include "support/test_thread.h"

namespace testing_report {

inline std::wstring CentralTool() { return testsupport::Quoted(testsupport::BinFolder() / L"lumeracentral.exe"); }

// lumeracentral.exe running in the background with its standard output in a file.
class Background {
 public:
  Background(const std::wstring& arguments, const std::wstring& outputFile)
      : process_(testsupport::StartProgram(CentralTool() + L" " + arguments, outputFile)) {}
  ~Background() {
    if (process_ && ::WaitForSingleObject(process_.get(), 0) == WAIT_TIMEOUT) ::TerminateProcess(process_.get(), 99);
  }
  bool Started() const { return process_.valid(); }
  // The exit code once it ended within `ms`, else WAIT_TIMEOUT.
  DWORD Wait(DWORD ms) const {
    DWORD code = WAIT_TIMEOUT;
    if (::WaitForSingleObject(process_.get(), ms) == WAIT_OBJECT_0) ::GetExitCodeProcess(process_.get(), &code);
    return code;
  }

 private:
  ky::unique_handle process_;
};

// Waits until the pipe exists.
inline bool PipeListening(DWORD ms) {
  return testsupport::WaitUntil([] { return ::WaitNamedPipeW(L"\\\\.\\pipe\\RemoteDispatcherPipe", 100) != FALSE; }, ms);
}

}  // namespace testing_report
