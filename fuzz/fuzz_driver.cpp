#include "fuzz_driver.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <thread>
#include <unordered_set>

#include "common/log.h"
#include "common/unique_handle.h"

namespace fuzz {
namespace {

constexpr std::uint64_t kHangMs = 1000;
constexpr DWORD kWatchdogPollMs = 100;
constexpr std::size_t kMaxWorkingCorpus = 512;
constexpr double kProgressSeconds = 0.5;

// What the crash and hang reports need, kept where a handler can reach it without the heap.
struct State {
  const char* name = "";
  std::uint64_t seed = 0;
  std::atomic<std::uint64_t> index{0};
  std::atomic<std::uint64_t> startTick{0};
  std::atomic<bool> busy{false};
  std::atomic<bool> reporting{false};
  const std::uint8_t* input = nullptr;
  std::size_t inputSize = 0;
  std::size_t outcomes = 0;
};
State g_state;

void WriteRaw(const char* text, std::size_t size) {
  DWORD written = 0;
  ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(size), &written, nullptr);
}

void WriteText(const char* text) { WriteRaw(text, std::strlen(text)); }

// Formats into a static buffer and writes the input in hex chunks: a stack that just
// overflowed has little room left.
[[noreturn]] void Report(const char* kind, const char* detail, int exitCode) {
  if (g_state.reporting.exchange(true)) {
    for (;;) ::Sleep(INFINITE);
  }
  static char line[512];
  std::snprintf(line, sizeof line, "\nfuzz %s: %s%s%s at input %llu, seed 0x%llx, %zu bytes:\n", g_state.name, kind,
                detail[0] ? ": " : "", detail, static_cast<unsigned long long>(g_state.index.load()),
                static_cast<unsigned long long>(g_state.seed), g_state.inputSize);
  WriteText(line);
  static char hex[2 * 1024 + 1];
  static const char digits[] = "0123456789abcdef";
  for (std::size_t at = 0; g_state.input != nullptr && at < g_state.inputSize; at += 1024) {
    const std::size_t n = g_state.inputSize - at < 1024 ? g_state.inputSize - at : 1024;
    for (std::size_t i = 0; i < n; ++i) {
      hex[2 * i] = digits[g_state.input[at + i] >> 4];
      hex[2 * i + 1] = digits[g_state.input[at + i] & 15];
    }
    WriteRaw(hex, 2 * n);
  }
  std::snprintf(line, sizeof line, "\nfuzz %s: %llu inputs, %d crashes, %d hangs, %zu distinct outcomes\n", g_state.name,
                static_cast<unsigned long long>(g_state.index.load()), exitCode == 1 ? 1 : 0, exitCode == 2 ? 1 : 0,
                g_state.outcomes);
  WriteText(line);
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
  for (;;) ::Sleep(INFINITE);
}

LONG CALLBACK OnException(EXCEPTION_POINTERS* info) {
  const DWORD code = info->ExceptionRecord->ExceptionCode;
  switch (code) {
    case EXCEPTION_ACCESS_VIOLATION:
    case EXCEPTION_STACK_OVERFLOW:
    case EXCEPTION_ILLEGAL_INSTRUCTION:
    case EXCEPTION_PRIV_INSTRUCTION:
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
    case EXCEPTION_INT_OVERFLOW:
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
    case EXCEPTION_IN_PAGE_ERROR:
    case EXCEPTION_DATATYPE_MISALIGNMENT:
    case 0xC0000374:  // heap corruption
    case 0xC0000409:  // stack buffer overrun
      break;
    default:
      return EXCEPTION_CONTINUE_SEARCH;  // C++ exceptions travel as exceptions too
  }
  static char detail[96];
  std::snprintf(detail, sizeof detail, "exception 0x%08lx at %p", static_cast<unsigned long>(code),
                info->ExceptionRecord->ExceptionAddress);
  Report("CRASH", detail, 1);
}

void OnAbort(int) { Report("CRASH", "abort", 1); }
void OnTerminate() { Report("CRASH", "terminate", 1); }

// Inputs placed so that a read one byte past the end, or one byte before the start, touches a
// page that may not be accessed.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::size_t maxBytes) {
    SYSTEM_INFO info{};
    ::GetSystemInfo(&info);
    page_ = info.dwPageSize;
    span_ = (maxBytes + page_ - 1) / page_ * page_;
    if (span_ == 0) span_ = page_;
    base_ = static_cast<std::uint8_t*>(::VirtualAlloc(nullptr, span_ + 2 * page_, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    DWORD old = 0;
    if (base_ == nullptr || !::VirtualProtect(base_, page_, PAGE_NOACCESS, &old) ||
        !::VirtualProtect(base_ + page_ + span_, page_, PAGE_NOACCESS, &old)) {
      std::fprintf(stderr, "fuzz: cannot set up guard pages: %lu\n", ::GetLastError());
      std::exit(3);
    }
  }
  ~GuardedBuffer() { ::VirtualFree(base_, 0, MEM_RELEASE); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  const std::uint8_t* Place(const Bytes& input, bool atEnd) {
    std::uint8_t* at = atEnd ? base_ + page_ + span_ - input.size() : base_ + page_;
    if (!input.empty()) std::memcpy(at, input.data(), input.size());
    return at;
  }

 private:
  std::size_t page_ = 4096;
  std::size_t span_ = 0;
  std::uint8_t* base_ = nullptr;
};

struct Options {
  std::uint64_t inputs = 1000000;
  double seconds = 0;  // 0: no time limit
  std::uint64_t seed = 0;
  std::size_t maxDepth = 0;  // 0: every input runs
  std::size_t fileEvery = 0;
  int selfCheck = 0;  // 1: touch the byte after an input, 2: the byte before one; 3: stall one input
};

bool ParseOptions(int argc, char** argv, const Target& target, Options& o) {
  o.seed = ::GetTickCount64() ^ (static_cast<std::uint64_t>(::GetCurrentProcessId()) << 32);
  o.fileEvery = target.fileEvery;
  for (int i = 1; i < argc; ++i) {
    if (i + 1 >= argc) return false;
    char* end = nullptr;
    const char* option = argv[i];
    const char* text = argv[++i];
    if (std::strcmp(option, "--seconds") == 0) {
      o.seconds = std::strtod(text, &end);
      if (o.seconds <= 0) return false;
    } else {
      const unsigned long long value = std::strtoull(text, &end, 0);
      if (std::strcmp(option, "--inputs") == 0) o.inputs = value;
      else if (std::strcmp(option, "--seed") == 0) o.seed = value;
      else if (std::strcmp(option, "--max-depth") == 0) o.maxDepth = value;
      else if (std::strcmp(option, "--file-every") == 0) o.fileEvery = value;
      else if (std::strcmp(option, "--self-check") == 0) o.selfCheck = static_cast<int>(value);
      else return false;
    }
    if (end == nullptr || *end != '\0') return false;
  }
  return true;
}

void Watchdog(HANDLE stop) {
  while (::WaitForSingleObject(stop, kWatchdogPollMs) == WAIT_TIMEOUT) {
    const std::uint64_t started = g_state.startTick.load();
    if (g_state.busy.load() && ::GetTickCount64() - started > kHangMs && g_state.startTick.load() == started) {
      Report("HANG", "one input ran over a second", 2);
    }
  }
}

}  // namespace

void Fail(const char* what) { Report("CRASH", what, 1); }

std::wstring ScratchFile(const wchar_t* name) {
  // Every file handed out is removed when the process ends normally.
  static struct Made {
    std::set<std::wstring> paths;
    ~Made() {
      for (const std::wstring& path : paths) ::DeleteFileW(path.c_str());
    }
  } made;
  wchar_t folder[MAX_PATH + 1] = {};
  ::GetTempPathW(MAX_PATH, folder);
  const std::wstring path = std::wstring(folder) + L"lumera-fuzz-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + name;
  made.paths.insert(path);
  return path;
}

void WriteScratchFile(const std::wstring& path, const std::uint8_t* data, std::size_t size) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  if (!file || !::WriteFile(file.get(), data, static_cast<DWORD>(size), &written, nullptr) || written != size) {
    Fail("cannot write the scratch file");
  }
}

int Run(int argc, char** argv, const Target& target) {
  Options options;
  if (!ParseOptions(argc, argv, target, options)) {
    std::fprintf(stderr, "usage: fuzz_%s.exe [--inputs N] [--seconds S] [--seed X] [--max-depth N] [--file-every K] [--self-check 1|2]\n",
                 target.name);
    return 2;
  }
  g_state.name = target.name;
  g_state.seed = options.seed;
  // The readers log through the real logcore.dll; writing nothing keeps the run about them.
  if (::GetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", nullptr, 0) == 0) ::SetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", L"0");
  logging::LogRef keepLogBound;
  ::AddVectoredExceptionHandler(1, &OnException);
  std::signal(SIGABRT, &OnAbort);
  std::set_terminate(&OnTerminate);

  ky::unique_handle stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::thread watchdog(Watchdog, stop.get());
  GuardedBuffer buffer(target.maxBytes);
  Rng rng(options.seed);
  Mutator mutator(rng, target.maxBytes, target.json, target.dictionary);
  std::vector<Bytes> working = target.corpus;
  std::unordered_set<Outcome> outcomes;
  Bytes input;
  std::uint64_t skipped = 0;
  std::uint64_t bytes = 0;
  const std::uint64_t begin = ::GetTickCount64();
  std::uint64_t lastProgress = begin;
  std::uint64_t done = 0;
  std::printf("fuzz %s: seed 0x%llx, %zu corpus inputs\n", target.name, static_cast<unsigned long long>(options.seed),
              target.corpus.size());
  for (; done < options.inputs; ++done) {
    if ((done & 1023) == 0) {
      const std::uint64_t now = ::GetTickCount64();
      if (options.seconds > 0 && static_cast<double>(now - begin) / 1000.0 >= options.seconds) break;
      if (static_cast<double>(now - lastProgress) / 1000.0 >= kProgressSeconds) {
        lastProgress = now;
        std::printf("\rfuzz %s: %llu inputs, %.0f/s, %zu outcomes, corpus %zu   ", target.name,
                    static_cast<unsigned long long>(done), done * 1000.0 / static_cast<double>(now - begin + 1),
                    outcomes.size(), working.size());
        std::fflush(stdout);
      }
    }
    // The corpus itself comes first, unchanged; then mutations of the working set.
    if (done < target.corpus.size()) {
      input = target.corpus[done];
    } else {
      input = working[rng.Below(working.size())];
      mutator.Mutate(input, working);
    }
    if (target.json && options.maxDepth != 0 && JsonDepth(input.data(), input.size()) > options.maxDepth) {
      ++skipped;
      continue;
    }
    g_state.index = done;
    const bool atEnd = (done & 1) == 0;
    const std::uint8_t* placed = buffer.Place(input, atEnd);
    g_state.input = placed;
    g_state.inputSize = input.size();
    if ((options.selfCheck == 1 && atEnd) || (options.selfCheck == 2 && !atEnd)) {
      const volatile std::uint8_t* outside = atEnd ? placed + input.size() : placed - 1;
      std::printf("fuzz %s: self-check read %d\n", target.name, *outside);
      return 3;
    }
    g_state.startTick = ::GetTickCount64();
    g_state.busy = true;
    if (options.selfCheck == 3) {
      ::WaitForSingleObject(stop.get(), static_cast<DWORD>(kHangMs * 5));
      return 3;
    }
    Outcome outcome = 0;
    try {
      outcome = target.read(placed, input.size());
      if (target.readFile != nullptr && options.fileEvery != 0 && done % options.fileEvery == 0) {
        outcome = outcome * 31 + (target.readFile(placed, input.size()) << 48);
      }
    } catch (const std::exception& e) {
      Report("CRASH", e.what()[0] ? e.what() : "an exception escaped the reader", 1);
    } catch (...) {
      Report("CRASH", "an exception escaped the reader", 1);
    }
    g_state.busy = false;
    bytes += input.size();
    if (outcomes.insert(outcome).second) {
      g_state.outcomes = outcomes.size();
      if (working.size() < kMaxWorkingCorpus) working.push_back(input);
      else working[rng.Below(working.size())] = input;
    }
  }
  ::SetEvent(stop.get());
  watchdog.join();
  const double seconds = static_cast<double>(::GetTickCount64() - begin) / 1000.0;
  std::printf("\rfuzz %s: %llu inputs in %.1f s (%.0f inputs/s, %.0f bytes on average), seed 0x%llx", target.name,
              static_cast<unsigned long long>(done), seconds, seconds > 0 ? done / seconds : 0.0,
              done > skipped ? static_cast<double>(bytes) / static_cast<double>(done - skipped) : 0.0,
              static_cast<unsigned long long>(options.seed));
  if (options.maxDepth != 0) std::printf(", %llu skipped deeper than %zu", static_cast<unsigned long long>(skipped), options.maxDepth);
  std::printf("\nfuzz %s: %llu inputs, 0 crashes, 0 hangs, %zu distinct outcomes\n", target.name,
              static_cast<unsigned long long>(done), outcomes.size());
  return 0;
}

}  // namespace fuzz
