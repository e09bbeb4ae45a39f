// boottime.exe: asks the boot-time plug-in's pipe for its results.
//
//   boottime.exe time | total | impact [--pid N] [--name TEXT] | disk | blame | summary
//                | watch [--count N] [--async] [--json] | --help
//
// Exit codes: 0 answered, 1 the query failed (code and meaning printed), 2 bad command line,
// 3 the module or the pipe could not be reached.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/log.h"
#include "common/module_library.h"
#include "common/text_convert.h"
#include "common/unique_handle.h"
#include "lumera/boottime.h"
#include "lumera/interface_ids.h"
#include "output.h"

namespace {

constexpr DWORD kAnswerWaitMs = 6000;  // the client's own 5000 ms plus the trip back
constexpr wchar_t kObjectName[] = L"boottimecommclient";
constexpr char kUsage[] =
    "usage: boottime.exe time | total | impact [--pid N] [--name TEXT] | disk | blame | summary\n"
    "                    | watch [--count N]  [--async] [--json]   (boottime.exe --help)\n";
constexpr char kHelp[] =
    "boottime.exe: the boot-time results of LumeraPlg.dll, asked over \"boottimepipe\".\n"
    "\n"
    "commands:\n"
    "  time                 the last boot's time in ms\n"
    "  total                the boot's CPU time and I/O summed over every process\n"
    "  impact [--pid N] [--name TEXT]   each process's boot impact, by pid\n"
    "  disk                 the disk usage measured after boot\n"
    "  blame [--pid N] [--name TEXT]    processes by impact, most first, rated High / Medium / Low\n"
    "                       (High: CPU > 1 s or I/O > 3 MB; Medium: from 300 ms or 300 KB; Low: below)\n"
    "  summary              boot time, totals, disk usage and the top five processes\n"
    "  watch [--count N]    print each new-results broadcast (until Ctrl+C or N of them)\n"
    "\n"
    "options:\n"
    "  --json               one JSON object per answer\n"
    "  --async              time, total, impact and disk through the asynchronous client\n"
    "\n"
    "exit codes: 0 answered, 1 the query failed, 2 bad command line, 3 module or pipe unreachable\n";

struct Options {
  std::wstring command;
  boottime::ProcessKey key;
  bool async = false;
  bool json = false;
  unsigned long count = 0;  // watch: 0 = until Ctrl+C
};

ky::unique_handle g_stop;

BOOL WINAPI OnCtrl(DWORD) {
  ::SetEvent(g_stop.get());
  return TRUE;
}

bool ParseNumber(const wchar_t* text, unsigned long long* out) {
  wchar_t* end = nullptr;
  if (text == nullptr || *text == L'\0' || *text == L'-') return false;
  *out = std::wcstoull(text, &end, 10);
  return end != nullptr && *end == L'\0';
}

bool Parse(const std::vector<std::wstring>& argv, Options& options) {
  const int argc = static_cast<int>(argv.size());
  for (int i = 1; i < argc; ++i) {
    const std::wstring& arg = argv[i];
    unsigned long long number = 0;
    if (arg == L"--async") {
      options.async = true;
    } else if (arg == L"--json") {
      options.json = true;
    } else if (arg == L"--pid" && i + 1 < argc && ParseNumber(argv[i + 1].c_str(), &number)) {
      options.key.pid = number;
      ++i;
    } else if (arg == L"--name" && i + 1 < argc) {
      options.key.name = argv[++i];
    } else if (arg == L"--count" && i + 1 < argc && ParseNumber(argv[i + 1].c_str(), &number) && number <= 1000000) {
      options.count = static_cast<unsigned long>(number);
      ++i;
    } else if (options.command.empty() && (arg == L"time" || arg == L"total" || arg == L"impact" || arg == L"disk" ||
                                           arg == L"blame" || arg == L"summary" || arg == L"watch")) {
      options.command = arg;
    } else {
      return false;
    }
  }
  return !options.command.empty();
}

// The client uses nothing of the host; this answers the few questions a plug-in may ask.
struct ToolHost final : IServMain {
  const wchar_t* GetHostName() override { return L"boottime.exe"; }
  IPlgComponentManager* GetComponentManager() override { return nullptr; }
  IEventQueue* GetEventQueue() override { return nullptr; }
};

// Turns asynchronous answers and broadcasts into printed lines.
class Listener final : public boottime::IBootTimeResponse, public boottime::IBootTimeEvents {
 public:
  explicit Listener(const tool::Printer& printer) : printer_(printer) {}
  HANDLE Answered() const { return answered_.get(); }
  std::uint32_t Code() const { return code_; }
  unsigned long Broadcasts() const { return broadcasts_; }

  void OnGetBootTime(std::uint32_t code, std::uint32_t ms) override {
    if (code == 0) printer_.BootTime(ms);
    Done(code);
  }
  void OnGetTotalBootImpact(std::uint32_t code, const boottime::BootCounters& total) override {
    if (code == 0) printer_.Counters(total);
    Done(code);
  }
  void OnGetBootImpact(std::uint32_t code, const ky::IList<boottime::ProcessImpact>& impacts) override {
    if (code == 0) printer_.Impacts(ky::ToVector(impacts));
    Done(code);
  }
  void OnGetDiskSpeed(std::uint32_t code, const boottime::DiskSpeed& speed) override {
    if (code == 0) printer_.Disk(speed);
    Done(code);
  }
  void OnDataAnalysed(std::uint32_t status) override {
    printer_.DataAnalysed(status);
    ++broadcasts_;
    ::SetEvent(answered_.get());
  }

 private:
  void Done(std::uint32_t code) {
    code_ = code;
    ::SetEvent(answered_.get());
  }
  const tool::Printer& printer_;
  ky::unique_handle answered_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  std::atomic<std::uint32_t> code_{0};
  std::atomic<unsigned long> broadcasts_{0};
};

int RunSync(const Options& o, boottime::IBootTimeCommClient* client, const tool::Printer& printer) {
  std::uint32_t code = 0;
  if (o.command == L"time") {
    std::uint32_t ms = 0;
    if ((code = client->GetBootTime(&ms)) == 0) printer.BootTime(ms);
  } else if (o.command == L"total") {
    boottime::BootCounters total;
    if ((code = client->GetTotalBootImpact(&total)) == 0) printer.Counters(total);
  } else if (o.command == L"impact") {
    ky::List<boottime::ProcessImpact> impacts;
    if ((code = client->GetBootImpact(&impacts, &o.key)) == 0) printer.Impacts(impacts.Items());
  } else if (o.command == L"blame") {
    ky::List<boottime::ProcessImpact> impacts;
    if ((code = client->GetBootImpact(&impacts, &o.key)) == 0) printer.Blame(impacts.Items());
  } else if (o.command == L"summary") {
    // The totals are summed here: the synchronous client's total query answers the boot time.
    std::uint32_t ms = 0;
    ky::List<boottime::ProcessImpact> impacts;
    boottime::DiskSpeed speed;
    const boottime::ProcessKey every;
    if ((code = client->GetBootTime(&ms)) == 0 && (code = client->GetBootImpact(&impacts, &every)) == 0) {
      const bool measured = client->GetDiskSpeed(&speed) == 0;
      printer.Summary(ms, measured ? &speed : nullptr, impacts.Items());
    }
  } else {
    boottime::DiskSpeed speed;
    if ((code = client->GetDiskSpeed(&speed)) == 0) printer.Disk(speed);
  }
  if (code == 0) return 0;
  printer.Failure(ky::WideToUtf8(o.command).c_str(), code);
  return 1;
}

int RunAsync(const Options& o, boottime::IBootTimeCommClientAsync* client, Listener& listener,
             const tool::Printer& printer) {
  std::uint32_t posted = 0;
  if (o.command == L"time") posted = client->GetBootTimeAsync();
  if (o.command == L"total") posted = client->GetTotalBootImpactAsync();
  if (o.command == L"impact") posted = client->GetBootImpactAsync(&o.key);
  if (o.command == L"disk") posted = client->GetDiskSpeedAsync();
  if (o.command == L"blame" || o.command == L"summary") {
    std::fprintf(stderr, "boottime: %ls has no --async form\n", o.command.c_str());
    return 2;
  }
  if (posted != 0) {
    printer.Failure("posting the query", posted);
    return 1;
  }
  HANDLE waits[2] = {listener.Answered(), g_stop.get()};
  if (::WaitForMultipleObjects(2, waits, FALSE, kAnswerWaitMs) != WAIT_OBJECT_0) {
    printer.Failure("waiting for the answer", WAIT_TIMEOUT);
    return 1;
  }
  if (listener.Code() == 0) return 0;
  printer.Failure(ky::WideToUtf8(o.command).c_str(), listener.Code());
  return 1;
}

int RunWatch(const Options& o, Listener& listener) {
  HANDLE waits[2] = {listener.Answered(), g_stop.get()};
  while (o.count == 0 || listener.Broadcasts() < o.count) {
    if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0) break;
  }
  return 0;
}

int Run(const Options& o) {
  const tool::Printer printer(o.json);
  ky::KyFactoryLibrary module;
  const char* missing = nullptr;
  const std::uint32_t loaded = module.Load(ky::ThisModuleFolder() + L"LumeraPlg.dll", &missing);
  if (loaded != 0 && missing == nullptr) {
    std::fprintf(stderr, "boottime: cannot load LumeraPlg.dll: %lu\n", static_cast<unsigned long>(loaded));
    return 3;
  }
  void* object = nullptr;
  const std::uint32_t created = loaded != 0 ? loaded : module.Create(kObjectName, lumera::ids::IBootTimeCommClient, &object);
  if (created != 0 || object == nullptr) {
    std::fprintf(stderr, "boottime: cannot create %ls: %u\n", kObjectName, created);
    return 3;
  }
  auto* client = static_cast<boottime::IBootTimeCommClient*>(object);
  auto* async = static_cast<boottime::IBootTimeCommClientAsync*>(client->GetInterface(lumera::ids::IBootTimeCommClientAsync));
  ToolHost host;
  Listener listener(printer);
  int exitCode = 3;
  std::uint32_t result = client->Init(&host);
  if (result == 0) result = client->Start();
  if (result != 0) {
    std::fprintf(stderr, "boottime: cannot reach boottimepipe: %u\n", result);
  } else {
    async->AddResponseObserver(&listener);
    client->AddListener(&listener);
    if (o.command == L"watch") {
      exitCode = RunWatch(o, listener);
    } else {
      exitCode = o.async ? RunAsync(o, async, listener, printer) : RunSync(o, client, printer);
    }
  }
  client->Stop();
  client->UnInit();
  module.Destroy(kObjectName, object);
  return exitCode;
}

}  // namespace

int main() {
  // Held for the whole run so the log library stays loaded between the module's messages.
  logging::LogRef keepLog;
  std::vector<std::wstring> argv;
  const bool split = ky::ProcessArguments(argv);
  Options options;
  if (argv.size() >= 2 && (argv[1] == L"--help" || argv[1] == L"help")) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (!split || !Parse(argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  g_stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ::SetConsoleCtrlHandler(&OnCtrl, TRUE);
  return Run(options);
}
