#include "support/programs.h"

#include <shlobj.h>
#include <shobjidl.h>

#include <cstdlib>

#include "common/com_ptr.h"
#include "common/unique_handle.h"
#include "support/scratch_folder.h"

namespace testsupport {

std::filesystem::path BinFolder() { return std::filesystem::path(ExeFolder()).parent_path().parent_path(); }

std::wstring Quoted(const std::filesystem::path& path) { return L"\"" + path.wstring() + L"\""; }

ky::unique_handle StartProgram(std::wstring commandLine, const std::wstring& outputFile) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  ky::unique_file output;
  if (!outputFile.empty()) {
    output.reset(::CreateFileW(outputFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = output.get();
  }
  PROCESS_INFORMATION info{};
  if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, output.valid(), 0, nullptr, nullptr, &startup,
                        &info)) {
    return ky::unique_handle();
  }
  ky::unique_handle thread(info.hThread);
  return ky::unique_handle(info.hProcess);
}

ProgramRun RunBinProgram(const wchar_t* exe, const std::wstring& arguments, DWORD timeoutMs) {
  return RunProgram(Quoted(BinFolder() / exe) + L" " + arguments, timeoutMs);
}

bool WineFlavourIsWin10() {
  const char* flavour = std::getenv("LUMERA_WINE_FLAVOUR");
  return flavour != nullptr && std::string(flavour) == "win10";
}

std::wstring SpecialFolder(int csidl) {
  wchar_t path[MAX_PATH] = {};
  ::SHGetSpecialFolderPathW(nullptr, path, csidl, FALSE);
  return path;
}

HRESULT SaveShortcut(const std::wstring& link, const std::wstring& target, const std::wstring& arguments) {
  const HRESULT com = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  HRESULT result = S_OK;
  {
    ky::com_ptr<IShellLinkW> shell;
    ky::com_ptr<IPersistFile> file;
    result = ::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW, shell.put_void());
    if (SUCCEEDED(result)) result = shell->SetPath(target.c_str());
    if (SUCCEEDED(result)) result = shell->SetArguments(arguments.c_str());
    if (SUCCEEDED(result)) result = shell.query(IID_IPersistFile, file);
    if (SUCCEEDED(result)) result = file->Save(link.c_str(), TRUE);
  }
  if (SUCCEEDED(com)) ::CoUninitialize();
  return result;
}

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
  // Wine answers ERROR_INTERNAL_ERROR when the new process died in Wine's own loader before
  // initialising, with none of the program's code run (seen under load), so it is started again.
  constexpr int kStartAttempts = 3;
  for (int attempt = 1;; ++attempt) {
    if (::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
      break;
    }
    run.exitCode = ::GetLastError();
    if (run.exitCode != ERROR_INTERNAL_ERROR || attempt == kStartAttempts) return run;
    command = commandLine;
  }
  ky::unique_handle processHandle(process.hProcess);
  ky::unique_handle threadHandle(process.hThread);
  writer.reset();

  // Output is taken while it is there and reading stops when the program ends: a process the
  // program started (Wine's desktop, for one) may hold the pipe open long after.
  auto drain = [&] {
    DWORD available = 0;
    char buffer[4096];
    while (::PeekNamedPipe(reader.get(), nullptr, 0, nullptr, &available, nullptr) && available > 0) {
      DWORD got = 0;
      if (!::ReadFile(reader.get(), buffer, sizeof buffer, &got, nullptr) || got == 0) break;
      run.output.append(buffer, got);
    }
  };
  const ULONGLONG deadline = ::GetTickCount64() + timeoutMs;
  while (::WaitForSingleObject(processHandle.get(), 10) == WAIT_TIMEOUT) {
    drain();
    if (::GetTickCount64() >= deadline) {
      ::TerminateProcess(processHandle.get(), WAIT_TIMEOUT);
      ::WaitForSingleObject(processHandle.get(), 5000);
      break;
    }
  }
  drain();
  ::GetExitCodeProcess(processHandle.get(), &run.exitCode);
  return run;
}

}  // namespace testsupport
