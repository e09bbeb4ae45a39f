// Running the project's own programs from tests: where they are, and one run with its
// output and exit code.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

#include "common/unique_handle.h"

namespace testsupport {

// build/bin: the folder above the test programs' own.
std::filesystem::path BinFolder();

struct ProgramRun {
  DWORD exitCode = 0;       // WAIT_TIMEOUT when it had to be ended, or CreateProcessW's error
  std::string output;       // standard output and standard error, as written
};

// Runs the command line (program path quoted by the caller as needed) and waits at most
// timeoutMs; a program still running then is terminated.
ProgramRun RunProgram(const std::wstring& commandLine, DWORD timeoutMs = 30000);

// Starts the command line without waiting, its standard output and error into `outputFile` when
// one is named; the process handle, empty when it did not start.
ky::unique_handle StartProgram(std::wstring commandLine, const std::wstring& outputFile = L"");

// Quotes a path for a command line.
std::wstring Quoted(const std::filesystem::path& path);

// Runs one of the project's programs in build/bin (`exe`, e.g. L"startupctl.exe") with `arguments`.
ProgramRun RunBinProgram(const wchar_t* exe, const std::wstring& arguments, DWORD timeoutMs = 60000);

// ASCII-only narrowing, for comparing the project's names with JSON and console output.
inline std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// Whether the tests run in the win10 prefix (LUMERA_WINE_FLAVOUR) rather than the win7 one.
bool WineFlavourIsWin10();

// Saves a shell link at `link` that starts `target` with `arguments`; S_OK or the failing call's result.
HRESULT SaveShortcut(const std::wstring& link, const std::wstring& target, const std::wstring& arguments = L"");

// SHGetSpecialFolderPathW's folder for `csidl`, without a trailing backslash.
std::wstring SpecialFolder(int csidl);

}  // namespace testsupport
