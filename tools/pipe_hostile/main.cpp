// pipe_hostile.exe [--frames N] [--clients N] [--good N] [--flood N] [--seconds S] [--seed X] [--attach]
//
// Against a running lumerahost.exe (one it starts in a scratch folder, or with --attach the
// one already serving "boottimepipe"), N hostile clients send random, truncated, oversized and
// lying frames and open and drop connections, while well-behaved clients query continuously
// through the module's "boottimecommclient". Then a flood of clients (--flood, twice the
// server's session cap by default, 0 for none) opens sessions and holds them while the good
// clients go on asking: the server must refuse every client over its cap, with a log line for
// each, and keep answering the good ones. Last two lines:
//   hostile pipe: session cap C: F flood clients, H held, R refused (L log lines), G good answers during the flood
//   hostile pipe: N frames, A of Q good queries answered, host alive
// Exit codes: 0 every good query answered, every accepted hostile request that asked for a
// reply got one, the flood beyond the cap refused (each with its log line when the host was
// started here) while good answers kept coming, and the host alive; 1 otherwise; 2 bad command
// line; 3 no host to test.
//
// A tool rather than a benchmark: it times nothing and compares with no baseline; it is a
// program a person points at a host, running or started for the purpose.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/log.h"
#include "picojson.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "good_client.h"
#include "hostile_client.h"
#include "lumera/pipelink.h"
#include "session_flood.h"

namespace {

constexpr wchar_t kPipePath[] = L"\\\\.\\pipe\\boottimepipe";
constexpr DWORD kHostReadyMs = 30000;
constexpr DWORD kProgressMs = 500;
constexpr DWORD kFloodHoldMs = 10000;  // the most the flood holds its sessions waiting for good answers
constexpr char kRefusalLogText[] = "refused a client";

struct Options {
  std::uint64_t frames = 100000;
  int clients = 32;
  int good = 4;
  int flood = 2 * static_cast<int>(pipelink::kMaxSessionsPerPipe);
  double seconds = 0;  // 0: until the frames are sent
  std::uint64_t seed = 1;
  bool attach = false;
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--attach") == 0) {
      o.attach = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    const char* option = argv[i];
    char* end = nullptr;
    const unsigned long long value = std::strtoull(argv[++i], &end, 0);
    if (end == nullptr || *end != '\0') return false;
    if (std::strcmp(option, "--frames") == 0 && value > 0) o.frames = value;
    else if (std::strcmp(option, "--clients") == 0 && value > 0 && value <= 256) o.clients = static_cast<int>(value);
    else if (std::strcmp(option, "--good") == 0 && value > 0 && value <= 32) o.good = static_cast<int>(value);
    else if (std::strcmp(option, "--flood") == 0 && value <= 1024) o.flood = static_cast<int>(value);
    else if (std::strcmp(option, "--seconds") == 0 && value > 0) o.seconds = static_cast<double>(value);
    else if (std::strcmp(option, "--seed") == 0) o.seed = value;
    else return false;
  }
  return true;
}

std::string JsonPath(const std::filesystem::path& path) { return picojson::value(path.string()).serialize(); }

// lumerahost.exe from this program's folder, in a job that ends it if this program ends first.
class StartedHost {
 public:
  bool Start(const std::filesystem::path& scratch) {
    std::filesystem::create_directories(scratch / "common");
    const std::filesystem::path config = scratch / "host.json";
    std::ofstream(config, std::ios::binary) << "{\"objects\": [\"boottime\", \"boottimecomm\"], \"folders\": {\"2:common\": "
                                            << JsonPath(scratch / "common") << "}, \"log\": {\"folder\": "
                                            << JsonPath(scratch / "logs") << ", \"level\": 16}}";
    job_.reset(::CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (job_) ::SetInformationJobObject(job_.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    const std::wstring exe = ky::ThisModuleFolder() + L"lumerahost.exe";
    std::wstring command = L"\"" + exe + L"\" --config \"" + config.wstring() + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
      std::fprintf(stderr, "pipe_hostile: cannot start lumerahost.exe: %lu\n", ::GetLastError());
      return false;
    }
    process_.reset(info.hProcess);
    ky::unique_handle thread(info.hThread);
    if (job_) ::AssignProcessToJobObject(job_.get(), process_.get());
    return true;
  }
  HANDLE Process() const { return process_.get(); }
  void End() {
    if (!process_) return;
    ::TerminateProcess(process_.get(), 0);
    ::WaitForSingleObject(process_.get(), 10000);
    process_.reset();
  }

 private:
  ky::unique_handle job_;
  ky::unique_handle process_;
};

bool Running(HANDLE process) { return process == nullptr || ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT; }

bool PipeExists() { return ::WaitNamedPipeW(kPipePath, 0) || ::GetLastError() == ERROR_SEM_TIMEOUT; }

bool WaitForPipe(HANDLE process) {
  const ULONGLONG until = ::GetTickCount64() + kHostReadyMs;
  while (::GetTickCount64() < until && Running(process)) {
    if (::WaitNamedPipeW(kPipePath, 200)) return true;
    if (process != nullptr) ::WaitForSingleObject(process, 100);
  }
  return false;
}

int Run(const Options& options, const std::filesystem::path& scratch) {
  logging::LogRef keepLogBound;
  StartedHost host;
  if (options.attach) {
    if (!WaitForPipe(nullptr)) {
      std::fprintf(stderr, "pipe_hostile: no boottimepipe to attach to\n");
      return 3;
    }
  } else {
    if (PipeExists()) {
      std::fprintf(stderr, "pipe_hostile: boottimepipe is already served; use --attach\n");
      return 3;
    }
    if (!host.Start(scratch) || !WaitForPipe(host.Process())) {
      std::fprintf(stderr, "pipe_hostile: the started host did not open boottimepipe\n");
      host.End();
      return 3;
    }
  }
  ky::KyFactoryLibrary module;
  if (const std::uint32_t loaded = module.Load(ky::ThisModuleFolder() + L"LumeraPlg.dll"); loaded != 0) {
    std::fprintf(stderr, "pipe_hostile: cannot load LumeraPlg.dll: %u\n", loaded);
    host.End();
    return 3;
  }
  std::printf("pipe_hostile: %d hostile clients, %d good clients, %llu frames, seed %llu, %s host\n", options.clients,
              options.good, static_cast<unsigned long long>(options.frames), static_cast<unsigned long long>(options.seed),
              options.attach ? "attached" : "started");

  hostile::HostileTotals hostileTotals;
  hostile::GoodTotals goodTotals;
  ky::unique_handle hardStop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ky::unique_handle goodStop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::atomic<int> hostileRunning{options.clients};
  std::vector<std::thread> threads;
  const ULONGLONG begin = ::GetTickCount64();
  for (int i = 0; i < options.clients; ++i) {
    threads.emplace_back([&, i] {
      hostile::RunHostileClient(options.seed * 1000003 + static_cast<std::uint64_t>(i), options.frames, hardStop.get(),
                                hostileTotals);
      --hostileRunning;
    });
  }
  for (int i = 0; i < options.good; ++i) {
    threads.emplace_back([&] { hostile::RunGoodClient(module, goodStop.get(), goodTotals); });
  }
  while (hostileRunning > 0) {
    ::WaitForSingleObject(hardStop.get(), kProgressMs);
    const double elapsed = static_cast<double>(::GetTickCount64() - begin) / 1000.0;
    if ((options.seconds > 0 && elapsed >= options.seconds) || !Running(host.Process())) ::SetEvent(hardStop.get());
    std::printf("\rhostile pipe: %llu frames, %llu connections, %llu of %llu good queries answered, %.0f s   ",
                static_cast<unsigned long long>(hostileTotals.frames.load()),
                static_cast<unsigned long long>(hostileTotals.connections.load()),
                static_cast<unsigned long long>(goodTotals.answered.load()),
                static_cast<unsigned long long>(goodTotals.asked.load()), elapsed);
    std::fflush(stdout);
  }
  const double elapsed = static_cast<double>(::GetTickCount64() - begin) / 1000.0;

  // The flood, while the good clients keep their sessions and go on asking.
  hostile::SessionFlood flood;
  const std::uint64_t answeredBeforeFlood = goodTotals.answered;
  flood.Open(options.flood, goodStop.get());
  const std::uint64_t wanted = answeredBeforeFlood + 4 * static_cast<std::uint64_t>(options.good);
  const ULONGLONG holdUntil = ::GetTickCount64() + kFloodHoldMs;
  while (goodTotals.answered < wanted && ::GetTickCount64() < holdUntil && Running(host.Process())) {
    ::WaitForSingleObject(host.Process() != nullptr ? host.Process() : goodStop.get(), 50);
  }
  const std::uint64_t answeredDuringFlood = goodTotals.answered - answeredBeforeFlood;
  flood.Release();
  ::SetEvent(goodStop.get());
  for (auto& t : threads) t.join();

  // Alive: still running, and a fresh client gets its answer after the storm.
  ::SetEvent(hardStop.get());
  const bool lastAnswered = hostile::RunGoodClient(module, goodStop.get(), goodTotals);
  DWORD hostExit = STILL_ACTIVE;
  if (host.Process() != nullptr && !Running(host.Process())) ::GetExitCodeProcess(host.Process(), &hostExit);
  const bool alive = lastAnswered && hostExit == STILL_ACTIVE;
  host.End();
  module.Free();
  const hostile::FloodTotals& floodTotals = flood.Totals();
  const std::uint64_t refusalLines = options.attach ? 0 : hostile::CountInLogs(scratch / "logs", kRefusalLogText);
  const std::uint64_t beyondCap =
      options.flood > static_cast<int>(pipelink::kMaxSessionsPerPipe) ? options.flood - pipelink::kMaxSessionsPerPipe : 0;
  const bool floodRefused = options.flood == 0 ||
                            (floodTotals.other == 0 && floodTotals.held <= pipelink::kMaxSessionsPerPipe &&
                             floodTotals.refused >= beyondCap && answeredDuringFlood > 0 &&
                             (options.attach || refusalLines == floodTotals.refused));

  const auto frames = static_cast<unsigned long long>(hostileTotals.frames.load());
  std::printf("\rhostile pipe: %llu frames over %llu connections in %.1f s (%.0f frames/s); %llu of %llu accepted "
              "requests that asked for a reply got one; %llu good answers were \"1 not yet known\"\n",
              frames, static_cast<unsigned long long>(hostileTotals.connections.load()), elapsed,
              elapsed > 0 ? frames / elapsed : 0.0, static_cast<unsigned long long>(hostileTotals.replied.load()),
              static_cast<unsigned long long>(hostileTotals.asked.load()),
              static_cast<unsigned long long>(goodTotals.notYetKnown.load()));
  if (options.flood > 0) {
    std::printf("hostile pipe: session cap %u: %d flood clients, %llu held, %llu refused (%s log lines), %llu good "
                "answers during the flood%s\n",
                static_cast<unsigned>(pipelink::kMaxSessionsPerPipe), options.flood,
                static_cast<unsigned long long>(floodTotals.held), static_cast<unsigned long long>(floodTotals.refused),
                options.attach ? "host's log not read:" : std::to_string(refusalLines).c_str(),
                static_cast<unsigned long long>(answeredDuringFlood), floodRefused ? "" : " - CAP NOT HELD");
  }
  std::printf("hostile pipe: %llu frames, %llu of %llu good queries answered, %s\n", frames,
              static_cast<unsigned long long>(goodTotals.answered.load()),
              static_cast<unsigned long long>(goodTotals.asked.load()), alive ? "host alive" : "HOST DEAD");
  if (!alive && hostExit != STILL_ACTIVE) std::fprintf(stderr, "pipe_hostile: the host ended with 0x%lx\n", hostExit);
  std::fflush(stdout);
  return alive && floodRefused && goodTotals.answered == goodTotals.asked && hostileTotals.replied == hostileTotals.asked
             ? 0
             : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: pipe_hostile.exe [--frames N] [--clients N] [--good N] [--flood N] [--seconds S] [--seed X] "
                 "[--attach]\n");
    return 2;
  }
  wchar_t temp[MAX_PATH + 1] = {};
  ::GetTempPathW(MAX_PATH, temp);
  const std::filesystem::path scratch =
      std::filesystem::path(temp) / (L"lumera-hostile-" + std::to_wstring(::GetCurrentProcessId()));
  if (::GetEnvironmentVariableW(L"LUMERA_LOG_DIR", nullptr, 0) == 0) {
    ::SetEnvironmentVariableW(L"LUMERA_LOG_DIR", (scratch / L"client-logs").wstring().c_str());
  }
  const int exitCode = Run(options, scratch);
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  return exitCode;
}
