// lumeracentral.exe started in the background for tests, and the wait for its pipe.
#pragma once

#include <windows.h>

#include <string>

#include "common/unique_handle.h"
#include "support/programs.h"

namespace testing_report {

inline std::wstring CentralTool() { return testsupport::Quoted(testsupport::BinFolder() / L"lumeracentral.exe"); }

// lumeracentral.exe running in the background with its standard output in a file.
class Background {
 public:
  Background(const std::wstring& arguments, const std::wstring& outputFile) {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    output_.reset(::CreateFileW(outputFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output_.get();
    startup.hStdError = output_.get();
    std::wstring command = CentralTool() + L" " + arguments;
    PROCESS_INFORMATION process{};
    if (::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
      process_.reset(process.hProcess);
      ky::unique_handle thread(process.hThread);
    }
  }
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
  ky::unique_file output_;
  ky::unique_handle process_;
};

// Waits until the pipe exists.
inline bool PipeListening(DWORD ms) {
  const ULONGLONG deadline = ::GetTickCount64() + ms;
  while (::GetTickCount64() < deadline) {
    if (::WaitNamedPipeW(L"\\\\.\\pipe\\RemoteDispatcherPipe", 100)) return true;
    ::Sleep(20);  // the pipe does not exist yet, so there is nothing to wait on
  }
  return false;
}

}  // namespace testing_report
