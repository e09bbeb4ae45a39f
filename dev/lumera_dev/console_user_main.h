// The whole of main() for a program that a staged boot runs as the console user (StartLauncher,
// startupctl). Header-only: it uses the logging adapter and the command-line splitter of
// src/common, which such a program links anyway.
#pragma once

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/log.h"
#include "lumera_dev/staged_identity.h"

namespace lumera::dev {

// Under Wine installs the staged identity on the program itself, holds the log library for the
// whole run so that it stays loaded between messages, and returns `run(arguments)`;
// `unsplit()` when the command line cannot be split, and `failure` (with a line on standard
// error naming `program`) when anything throws.
template <class Run, class Unsplit>
int ConsoleUserMain(const char* program, Run run, Unsplit unsplit, int failure) {
  InstallStagedIdentity(::GetModuleHandleW(nullptr));
  logging::LogRef keepLog;
  try {
    std::vector<std::wstring> args;
    if (!ky::ProcessArguments(args)) return unsplit();
    return run(args);
  } catch (...) {
    std::fprintf(stderr, "%s: unexpected failure\n", program);
    return failure;
  }
}

}  // namespace lumera::dev
