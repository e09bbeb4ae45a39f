// The loop every fuzz driver shares: options, the mutation of a corpus, guard pages around each
// input, crash and hang reports, the progress line and the summary.
//
//   fuzz_NAME.exe [--inputs N] [--seconds S] [--seed X] [--max-depth N] [--file-every K]
//
// --max-depth leaves out JSON inputs nested deeper than N; --file-every runs the reader's
// path through a file for every Kth input; --self-check 1 (2) reads the byte after (before)
// an input to show that the guard pages catch it, 3 stalls an input to show the hang report.
// A crash (access violation, stack overflow, abort, an exception escaping the reader, or a
// broken check of the driver) prints the input in hex with the seed and exits 1; one input
// running over a second is a hang, reported the same way, exit 2. 0 when neither happened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mutator.h"

namespace fuzz {

// What a reader made of one input, as a small number; equal numbers are one outcome class.
using Outcome = std::uint64_t;
using ReaderFn = Outcome (*)(const std::uint8_t* data, std::size_t size);

// Each driver's main returns Run(argc, argv, {.name = ..., .corpus = ..., .read = ...}).
struct Target {
  const char* name = "";
  std::vector<Bytes> corpus{};
  std::vector<std::string> dictionary{};
  bool json = false;
  std::size_t maxBytes = 4096;
  // Runs the reader over bytes that end (or start) at a page no one may touch.
  ReaderFn read = nullptr;
  // The reader's whole path through a file on disk, slower by far: run for every Kth input
  // (--file-every, default fileEvery; 0 never).
  ReaderFn readFile = nullptr;
  std::size_t fileEvery = 0;
};

// Reports a broken promise of the reader found by the driver's own checks, like a crash.
[[noreturn]] void Fail(const char* what);

// A count sorted into a few classes, for outcomes.
inline Outcome Bucket(std::size_t count) { return count == 0 ? 0 : count == 1 ? 1 : count < 8 ? 2 : count < 256 ? 3 : 4; }

// Parses the options and runs the target; returns the process exit code.
int Run(int argc, char** argv, const Target& target);

// A scratch file in the temporary folder, unique to this process and name, removed at exit;
// for the readers that only read from a path.
std::wstring ScratchFile(const wchar_t* name);
void WriteScratchFile(const std::wstring& path, const std::uint8_t* data, std::size_t size);

}  // namespace fuzz
