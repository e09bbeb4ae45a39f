// Running the project's own programs from tests: where they are, and one run with its
// output and exit code.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

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

// Quotes a path for a command line.
std::wstring Quoted(const std::filesystem::path& path);

}  // namespace testsupport
