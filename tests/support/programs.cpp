#include "support/programs.h"

#include <thread>

#include "common/unique_handle.h"

namespace testsupport {

std::filesystem::path BinFolder() {
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path().parent_path();
}

std::wstring Quoted(const std::filesystem::path& path) { return L"\"" + path.wstring() + L"\""; }

ProgramRun RunProgram(const std::wstring& commandLine, DWORD timeoutMs) {
  ProgramRun run;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
    run.exitCode = ::GetLastError();
    return run;
  }
  ky::unique_handle reader(readEnd);
  ky::unique_handle writer(writeEnd);
  ::SetHandleInformation(reader.get(), HANDLE_FLAG_INHERIT, 0);

  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = nullptr;
  startup.hStdOutput = writer.get();
  startup.hStdError = writer.get();
  PROCESS_INFORMATION process{};
  std::wstring command = commandLine;
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
    run.exitCode = ::GetLastError();
    return run;
  }
  run.started = true;
  ky::unique_handle processHandle(process.hProcess);
  ky::unique_handle threadHandle(process.hThread);
  writer.reset();  // only the child holds the write end now, so reading ends when it does

  std::thread drain([&] {
    char buffer[4096];
    DWORD got = 0;
    while (::ReadFile(reader.get(), buffer, sizeof buffer, &got, nullptr) && got > 0) run.output.append(buffer, got);
  });
  if (::WaitForSingleObject(processHandle.get(), timeoutMs) != WAIT_OBJECT_0) {
    ::TerminateProcess(processHandle.get(), WAIT_TIMEOUT);
    ::WaitForSingleObject(processHandle.get(), 5000);
  }
  drain.join();
  ::GetExitCodeProcess(processHandle.get(), &run.exitCode);
  return run;
}

}  // namespace testsupport
