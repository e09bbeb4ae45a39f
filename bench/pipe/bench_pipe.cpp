// bench_pipe.exe [--iterations N] [--clients N] [--queries N] [--all-cores]
//
// 1. Synchronous GetBootImpact round trips (500 impacts) through CBootTimeCommClient,
//    pipelink.dll and CBootTimeComm, against a bare message-mode pipe that moves the same
//    request and reply bytes, measured in the same run: "boottime query: R x bare".
//    Both run on one core unless --all-cores is given.
//    The same for the history query of 100 boots: "history query: 100 boots in T us (R x bare pipe)".
// 2. Many clients querying at once, on every core: "concurrent: N of M answered".
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../bench_timing.h"
#include "boottime/boot_history_file.h"
#include "boottime/comm/boottime_comm.h"
#include "boottime/comm/boottime_comm_client.h"
#include "boottime/comm/payload.h"
#include "common/callback_list.h"
#include "common/log.h"
#include "common/unique_handle.h"
#include "component_manager.h"
#include "lumera/interface_ids.h"

namespace {

constexpr std::size_t kImpacts = 500;
constexpr int kWarmup = 20;
constexpr std::size_t kHistoryBoots = 100;

// A boot as the history keeps it: twenty heavy processes and a dozen startup entries.
std::string HistoryLine(std::size_t boot) {
  boottime::BootRecord record;
  record.systemStart = 133'000'000'000'000 + static_cast<std::int64_t>(boot) * 86'400'000;
  record.bootTime = 40000 + static_cast<std::uint32_t>(boot);
  record.end = boottime::BootEnd::kWindowsEvent;
  record.windowsBootTime = 39000;
  record.logonTime = 21000;
  record.user = L"alice";
  record.cpuMs = 123456;
  record.bytesRead = 987654321;
  record.bytesWritten = 12345678;
  record.processes = 140;
  for (std::uint32_t i = 0; i < boottime::kHistoryTopImpacts; ++i) {
    record.top.push_back({L"C:\\Program Files\\Vendor\\app" + std::to_wstring(i) + L".exe", 900 - i, 4096 * i, 512 * i});
  }
  for (std::uint32_t i = 0; i < 12; ++i) {
    record.entries.push_back({L"Entry " + std::to_wstring(i), L"run", boottime::StartupState::kEnabled,
                              boottime::HistoryImpact{L"", 300 + i, 1 << 20, 4096}});
  }
  return boottime::EncodeBootRecord(record);
}

struct Options {
  int iterations = 300;
  int clients = 32;
  int queries = 500;
  bool allCores = false;
};

// On a machine with few cores, whether a woken thread finds its core busy, idle or asleep
// changes a round trip more than any code on the path does, and differently from run to run;
// on one core the bare and the module exchange pay the same hand-overs.
class OneCore {
 public:
  explicit OneCore(bool enabled) {
    DWORD_PTR system = 0;
    if (!enabled || !::GetProcessAffinityMask(::GetCurrentProcess(), &saved_, &system) || saved_ == 0) return;
    const DWORD_PTR lowest = saved_ & (~saved_ + 1);
    pinned_ = ::SetProcessAffinityMask(::GetCurrentProcess(), lowest) != FALSE;
  }
  ~OneCore() {
    if (pinned_) ::SetProcessAffinityMask(::GetCurrentProcess(), saved_);
  }
  OneCore(const OneCore&) = delete;
  OneCore& operator=(const OneCore&) = delete;
  bool Pinned() const { return pinned_; }

 private:
  DWORD_PTR saved_ = 0;
  bool pinned_ = false;
};

// Answers from memory, as the plug-in does once its results are loaded.
class BenchBootTime final : public boottime::IBootTime {
 public:
  BenchBootTime() {
    for (std::size_t i = 0; i < kImpacts; ++i) {
      impacts_.push_back({4, 1000 + i, L"C:\\Program Files\\Vendor\\app" + std::to_wstring(i) + L".exe",
                          static_cast<std::uint32_t>(i), 20, 4096, 512, 64});
    }
    for (std::size_t i = 0; i < kHistoryBoots; ++i) history_.push_back(HistoryLine(i));
  }
  const std::vector<boottime::ProcessImpact>& Impacts() const { return impacts_; }
  const std::vector<std::string>& History() const { return history_; }
  void* GetInterface(const GUID& iid) override {
    return KyIsEqualId(iid, lumera::ids::IBootTime) || KyIsEqualId(iid, lumera::ids::IKyBaseInterface) ? this : nullptr;
  }
  std::uint32_t Init(IServMain*) override { return 0; }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }
  std::uint32_t GetBootTime(std::uint32_t* ms) override {
    *ms = 42000;
    return 0;
  }
  std::uint32_t GetTotalBootImpact(boottime::BootCounters* total) override {
    *total = {1, 2, 3, 4, 5};
    return 0;
  }
  std::uint32_t GetBootImpact(ky::IList<boottime::ProcessImpact>* out, const boottime::ProcessKey*) override {
    for (const auto& impact : impacts_) out->Add(impact);
    return 0;
  }
  std::uint32_t GetDiskSpeed(boottime::DiskSpeed* speed) override {
    *speed = {1, 2, 3};
    return 0;
  }
  std::uint32_t AddListener(boottime::IBootTimeEvents* l) override { return listeners_.Register(l); }
  std::uint32_t RemoveListener(boottime::IBootTimeEvents* l) override { return listeners_.Unregister(l); }
  void OnDataAnalysed(std::uint32_t) override {}
  std::uint32_t GetBootHistory(std::uint32_t, ky::IList<std::string>* out) override {
    for (const auto& line : history_) out->Add(line);
    return 0;
  }

 private:
  std::vector<boottime::ProcessImpact> impacts_;
  std::vector<std::string> history_;
  CallbackList<boottime::IBootTimeEvents*> listeners_;
};

// A plain blocking message-mode pipe: the server reads the request and writes the reply.
class BareExchange {
 public:
  BareExchange(const std::vector<std::uint8_t>& request, const std::vector<std::uint8_t>& reply)
      : request_(request), reply_(reply), buffer_(reply.size() + 64) {
    const std::wstring path = L"\\\\.\\pipe\\lumera-bench-bare-" + std::to_wstring(::GetCurrentProcessId());
    server_.reset(::CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1,
                                     64 * 1024, 64 * 1024, 0, nullptr));
    if (!server_) return;
    serve_ = std::thread([this] {
      if (!::ConnectNamedPipe(server_.get(), nullptr) && ::GetLastError() != ERROR_PIPE_CONNECTED) return;
      std::vector<std::uint8_t> in(request_.size() + 64);
      DWORD n = 0;
      while (::ReadFile(server_.get(), in.data(), static_cast<DWORD>(in.size()), &n, nullptr) &&
             ::WriteFile(server_.get(), reply_.data(), static_cast<DWORD>(reply_.size()), &n, nullptr)) {
      }
    });
    client_.reset(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (client_) ::SetNamedPipeHandleState(client_.get(), &mode, nullptr, nullptr);
  }
  ~BareExchange() {
    client_.reset();  // the server's next read fails and its thread ends
    if (serve_.joinable()) serve_.join();
  }

  // Seconds for one request and its whole reply; a negative value when the exchange failed.
  double RoundTrip() {
    const double begin = bench::NowSeconds();
    DWORD n = 0;
    if (!client_ || !::WriteFile(client_.get(), request_.data(), static_cast<DWORD>(request_.size()), &n, nullptr) ||
        !::ReadFile(client_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()), &n, nullptr) || n != reply_.size()) {
      return -1;
    }
    return bench::NowSeconds() - begin;
  }

 private:
  const std::vector<std::uint8_t>& request_;
  const std::vector<std::uint8_t>& reply_;
  std::vector<std::uint8_t> buffer_;
  ky::unique_file server_;
  ky::unique_file client_;
  std::thread serve_;
};

// Bare and module round trips alternate, so that both medians come from the same conditions on
// a machine whose load changes while the benchmark runs.
void MeasureInterleaved(BareExchange& bare, boottime::CBootTimeCommClient& client, int iterations,
                        std::vector<double>& bareTimes, std::vector<double>& commTimes, bool* ok) {
  const boottime::ProcessKey key{0, 0, L"app.exe"};
  *ok = true;
  for (int i = 0; i < iterations + kWarmup; ++i) {
    const double bareTime = bare.RoundTrip();
    ky::List<boottime::ProcessImpact> impacts;
    const double begin = bench::NowSeconds();
    const std::uint32_t result = client.GetBootImpact(&impacts, &key);
    const double commTime = bench::NowSeconds() - begin;
    if (bareTime < 0 || result != 0 || impacts.Count() != kImpacts) *ok = false;
    if (i >= kWarmup) {
      bareTimes.push_back(bareTime);
      commTimes.push_back(commTime);
    }
  }
}

void MeasureHistoryInterleaved(BareExchange& bare, boottime::CBootTimeCommClient& client, int iterations,
                               std::vector<double>& bareTimes, std::vector<double>& commTimes, bool* ok) {
  *ok = true;
  for (int i = 0; i < iterations + kWarmup; ++i) {
    const double bareTime = bare.RoundTrip();
    ky::List<std::string> records;
    const double begin = bench::NowSeconds();
    const std::uint32_t result = client.GetBootHistory(0, &records);
    const double commTime = bench::NowSeconds() - begin;
    if (bareTime < 0 || result != 0 || records.Count() != kHistoryBoots) *ok = false;
    if (i >= kWarmup) {
      bareTimes.push_back(bareTime);
      commTimes.push_back(commTime);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  constexpr char kUsage[] = "usage: bench_pipe.exe [--iterations N] [--clients N] [--queries N] [--all-cores]";
  if (!bench::ParseCountOptions(
          argc, argv, kUsage,
          {{"--iterations", &options.iterations}, {"--clients", &options.clients}, {"--queries", &options.queries}},
          100000, "--all-cores", &options.allCores)) {
    return 2;
  }
  std::printf("log level %ls\n", bench::LogLevelAsDeployed().c_str());
  // The logging adapter drops its binding of logcore.dll whenever no log user is alive and
  // binds it again on the next call; holding one user for the run measures the pipe, not that.
  logging::LogRef keepLogBound;
  host::HostConfig config;
  host::ComponentManager manager(config);
  BenchBootTime plugin;
  manager.RegisterModuleObject(L"boottime", &plugin);
  int exitCode = 0;
  {
    boottime::CBootTimeComm server;
    if (server.Init(&manager) != 0 || server.Start() != 0) {
      std::fprintf(stderr, "bench_pipe: the boottimepipe server did not start (pipelink.dll beside the program?)\n");
      return 3;
    }

    // The bytes the real exchange carries, so both sides move the same payloads.
    boottime::CPayloadWriter request;
    request.WriteProcessKey(boottime::ProcessKey{0, 0, L"app.exe"});
    boottime::CPayloadWriter reply;
    reply.WriteImpactList(ky::List<boottime::ProcessImpact>(plugin.Impacts()));
    const std::vector<std::uint8_t> requestBytes(request.Data(), request.Data() + request.Size());
    const std::vector<std::uint8_t> replyBytes(reply.Data(), reply.Data() + reply.Size());

    boottime::CBootTimeCommClient client;
    if (client.Init(nullptr) != 0 || client.Start() != 0) {
      std::fprintf(stderr, "bench_pipe: the client could not connect\n");
      return 3;
    }
    bool allOk = false;
    std::vector<double> bareTimes;
    std::vector<double> commTimes;
    std::vector<double> small;
    boottime::CPayloadWriter historyRequest;
    historyRequest.WriteU32(0);
    boottime::CPayloadWriter historyReply;
    historyReply.WriteHistory(ky::List<std::string>(plugin.History()), pipelink::kMaxPayloadBytes);
    const std::vector<std::uint8_t> historyRequestBytes(historyRequest.Data(), historyRequest.Data() + historyRequest.Size());
    const std::vector<std::uint8_t> historyReplyBytes(historyReply.Data(), historyReply.Data() + historyReply.Size());
    std::vector<double> historyBareTimes;
    std::vector<double> historyTimes;
    bool historyOk = false;
    bool pinned = false;
    {
      OneCore core(!options.allCores);
      pinned = core.Pinned();
      {
        BareExchange exchange(historyRequestBytes, historyReplyBytes);
        MeasureHistoryInterleaved(exchange, client, options.iterations, historyBareTimes, historyTimes, &historyOk);
      }
      BareExchange exchange(requestBytes, replyBytes);
      MeasureInterleaved(exchange, client, options.iterations, bareTimes, commTimes, &allOk);
      for (int i = 0; i < options.iterations; ++i) {
        std::uint32_t ms = 0;
        const double begin = bench::NowSeconds();
        if (client.GetBootTime(&ms) != 0) allOk = false;
        small.push_back(bench::NowSeconds() - begin);
      }
    }
    const double bare = bench::Median(bareTimes);
    const double comm = bench::Median(commTimes);
    std::printf("round trips measured on %s\n", pinned ? "one core (--all-cores lets threads roam)" : "all cores");
    std::printf("bare named pipe: median %.1f us per round trip (%d round trips, request %zu bytes, reply %zu bytes)\n",
                bare * 1e6, options.iterations, requestBytes.size(), replyBytes.size());
    std::printf("boottimepipe GetBootImpact (%zu impacts): median %.1f us per round trip%s\n", kImpacts, comm * 1e6,
                allOk ? "" : " (SOME QUERIES FAILED)");
    std::printf("boottimepipe GetBootTime (4-byte reply): median %.1f us per round trip\n", bench::Median(small) * 1e6);
    std::printf("boottime query: %.2f x bare\n", bare > 0 ? comm / bare : 0.0);
    const double historyBare = bench::Median(historyBareTimes);
    const double history = bench::Median(historyTimes);
    std::printf("history query: %zu boots in %.0f us (%.2f x bare pipe; %zu-byte reply)%s\n", kHistoryBoots,
                history * 1e6, historyBare > 0 ? history / historyBare : 0.0, historyReplyBytes.size(),
                historyOk ? "" : " (SOME QUERIES FAILED)");
    if (!allOk || !historyOk || bare <= 0 || historyBare <= 0) exitCode = 1;
    client.Stop();
    client.UnInit();

    // Every client on its own thread; each query must come back with the full list.
    std::vector<std::unique_ptr<boottime::CBootTimeCommClient>> clients;
    int connected = 0;
    for (int i = 0; i < options.clients; ++i) {
      clients.push_back(std::make_unique<boottime::CBootTimeCommClient>());
      if (clients.back()->Init(nullptr) == 0 && clients.back()->Start() == 0) ++connected;
    }
    std::atomic<long> answered{0};
    const double begin = bench::NowSeconds();
    std::vector<std::thread> threads;
    for (auto& c : clients) {
      threads.emplace_back([&, raw = c.get()] {
        const boottime::ProcessKey key{0, 0, L""};
        for (int q = 0; q < options.queries; ++q) {
          ky::List<boottime::ProcessImpact> impacts;
          if (raw->GetBootImpact(&impacts, &key) == 0 && impacts.Count() == kImpacts) ++answered;
        }
      });
    }
    for (auto& t : threads) t.join();
    const double elapsed = bench::NowSeconds() - begin;
    for (auto& c : clients) {
      c->Stop();
      c->UnInit();
    }
    const long asked = static_cast<long>(options.clients) * options.queries;
    std::printf("%d of %d clients connected; %d GetBootImpact queries each in %.2f s (%.0f queries/s)\n", connected,
                options.clients, options.queries, elapsed, elapsed > 0 ? answered / elapsed : 0.0);
    std::printf("concurrent: %ld of %ld answered\n", answered.load(), asked);
    if (answered != asked) exitCode = 1;
    server.Stop();
    server.UnInit();
  }
  manager.UnregisterModuleObject(L"boottime");
  manager.Shutdown();
  return exitCode;
}
