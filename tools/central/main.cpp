// lumeracentral.exe: a stand-in for the product's central component. It listens on
// "RemoteDispatcherPipe" through pipelink.dll, prints every report it receives, and answers an
// update request with the app list of --apps.
//
//   lumeracentral.exe [--json] [--out FILE] [--apps FILE] [--count N]
//
// Exit codes: 0 done (N reports or Ctrl+C), 1 a file could not be read or written, 2 bad
// command line, 3 pipelink.dll or the pipe could not be had.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/module_library.h"
#include "common/text_convert.h"
#include "common/unique_handle.h"
#include "lumera/interface_ids.h"
#include "lumera/pipelink.h"
#include "lumera_dev/service_account.h"
#include "report_table.h"
#include "startup/central_messages.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;
constexpr std::size_t kMaxAppsFileBytes = pipelink::kMaxPayloadBytes - 1;

constexpr char kHelp[] =
    "usage: lumeracentral [--json] [--out FILE] [--apps FILE] [--count N]\n"
    "\n"
    "Listens on the named pipe RemoteDispatcherPipe as the central component does and prints\n"
    "every startup report it receives (message 1004).\n"
    "\n"
    "  --json        print each report as received, one JSON text per line, instead of a table\n"
    "  --out FILE    also append each report as received to FILE, one per line\n"
    "  --apps FILE   answer an update request (1006) with this app list (1005)\n"
    "  --count N     exit after N reports (default: run until Ctrl+C)\n"
    "  --help        this text\n"
    "\n"
    "Exit codes: 0 done, 1 a file could not be read or written, 2 bad command line,\n"
    "3 pipelink.dll or the pipe could not be had.\n";

struct Options {
  bool json = false;
  std::wstring out;
  std::wstring apps;
  unsigned long count = 0;
  bool help = false;
};

void Write(FILE* stream, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

int Usage(const std::string& reason) {
  Write(stderr, "lumeracentral: " + reason + " (see --help)\n");
  return kExitUsage;
}

bool ParseCount(const std::wstring& text, unsigned long& count) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of(L"0123456789") != std::wstring::npos) return false;
  count = std::wcstoul(text.c_str(), nullptr, 10);
  return count > 0;
}

// Empty reason: parsed.
std::string Parse(const std::vector<std::wstring>& args, Options& options) {
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::wstring& arg = args[i];
    const bool hasValue = i + 1 < args.size();
    if (arg == L"--help" || arg == L"-h") {
      options.help = true;
    } else if (arg == L"--json") {
      options.json = true;
    } else if (arg == L"--out" || arg == L"--apps" || arg == L"--count") {
      if (!hasValue) return "option " + ky::WideToUtf8(arg) + " needs a value";
      const std::wstring& value = args[++i];
      if (arg == L"--out") options.out = value;
      if (arg == L"--apps") options.apps = value;
      if (arg == L"--count" && !ParseCount(value, options.count)) return "--count needs a number above 0";
    } else {
      return "unknown argument " + ky::WideToUtf8(arg);
    }
  }
  return "";
}

bool ReadBounded(const std::wstring& path, std::string& bytes) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  LARGE_INTEGER size{};
  if (!file.valid() || !::GetFileSizeEx(file.get(), &size) || size.QuadPart > static_cast<LONGLONG>(kMaxAppsFileBytes)) {
    return false;
  }
  bytes.resize(static_cast<std::size_t>(size.QuadPart));
  DWORD read = 0;
  return bytes.empty() ||
         (::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) && read == bytes.size());
}

bool AppendLine(const std::wstring& path, const std::string& text) {
  ky::unique_file file(::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr));
  const std::string line = text + "\n";
  DWORD written = 0;
  return file.valid() && ::WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr) &&
         written == line.size();
}

ky::unique_handle g_stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));

BOOL WINAPI OnCtrl(DWORD) {
  ::SetEvent(g_stop.get());
  return TRUE;
}

// What the pipe's callback hands to the main thread.
class Central {
 public:
  explicit Central(std::string appList) : appList_(std::move(appList)) {}

  static std::uint32_t __cdecl Callback(void* context, const pipelink::PipeMessage* message) {
    return static_cast<Central*>(context)->OnMessage(*message);
  }

  void Attach(pipelink::IConnPipeServer* pipe) { pipe_ = pipe; }
  HANDLE Arrived() const { return arrived_.get(); }

  bool Next(std::string& report) {
    std::lock_guard<std::mutex> hold(lock_);
    if (reports_.empty()) return false;
    report = std::move(reports_.front());
    reports_.pop_front();
    return true;
  }

 private:
  std::uint32_t OnMessage(const pipelink::PipeMessage& message) {
    if (message.id == startup::kMsgReport) {
      std::string text(reinterpret_cast<const char*>(message.payload), message.size);
      if (!text.empty() && text.back() == '\0') text.pop_back();
      {
        std::lock_guard<std::mutex> hold(lock_);
        reports_.push_back(std::move(text));
      }
      ::SetEvent(arrived_.get());
    } else if (message.id == startup::kMsgUpdateRequest) {
      (void)pipe_->ReplyError(&message, 0);
      if (!appList_.empty()) {
        (void)pipe_->Post(startup::kMsgAppList, appList_.c_str(), static_cast<std::uint32_t>(appList_.size() + 1),
                          message.clientId);
      }
      Write(stdout, appList_.empty() ? "update request: no app list to send (--apps)\n" : "update request: app list sent\n");
    }
    return 0;
  }

  std::string appList_;
  pipelink::IConnPipeServer* pipe_ = nullptr;
  std::mutex lock_;
  std::deque<std::string> reports_;
  ky::unique_handle arrived_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

int Run(const Options& options) {
  std::string appList;
  if (!options.apps.empty() && !ReadBounded(options.apps, appList)) {
    Write(stderr, "lumeracentral: cannot read the app list " + ky::WideToUtf8(options.apps) + "\n");
    return kExitFailed;
  }
  ky::KyFactoryLibrary library;
  if (const std::uint32_t loaded = library.Load(ky::ThisModuleFolder() + L"pipelink.dll"); loaded != 0) {
    Write(stderr, "lumeracentral: cannot load pipelink.dll, error " + std::to_string(loaded) + "\n");
    return kExitUnreachable;
  }
  void* object = nullptr;
  if (library.Create(L"connserver", lumera::ids::PipeLinkServer, &object) != 0 || object == nullptr) {
    Write(stderr, "lumeracentral: pipelink.dll made no connserver object\n");
    return kExitUnreachable;
  }
  auto* server = static_cast<pipelink::IConnServer*>(object);
  Central central(std::move(appList));
  pipelink::IConnPipeServer* pipe = nullptr;
  const std::uint32_t created = server->CreatePipeServer(startup::kCentralPipeName, 0, &pipe);
  if (created != 0 || pipe == nullptr) {
    Write(stderr, "lumeracentral: cannot listen on RemoteDispatcherPipe, error " + std::to_string(created) + "\n");
    library.Destroy(L"connserver", object);
    return kExitUnreachable;
  }
  central.Attach(pipe);
  (void)pipe->RegisterCallback(&Central::Callback, &central, pipelink::kCallbackMessages);
  ::SetConsoleCtrlHandler(&OnCtrl, TRUE);
  Write(options.json ? stderr : stdout, "listening on RemoteDispatcherPipe\n");

  int exitCode = kExitOk;
  unsigned long received = 0;
  const HANDLE waits[] = {g_stop.get(), central.Arrived()};
  while (exitCode == kExitOk && (options.count == 0 || received < options.count)) {
    if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) break;
    std::string report;
    while (central.Next(report) && (options.count == 0 || received < options.count)) {
      ++received;
      Write(stdout, options.json ? report + "\n" : central::ReportTable(report, received));
      if (!options.out.empty() && !AppendLine(options.out, report)) {
        Write(stderr, "lumeracentral: cannot write " + ky::WideToUtf8(options.out) + "\n");
        exitCode = kExitFailed;
        break;
      }
    }
  }
  (void)pipe->UnregisterCallback(pipelink::kCallbackMessages);
  server->ReleasePipeServer(pipe);
  library.Destroy(L"connserver", object);
  return exitCode;
}

}  // namespace

int main() {
  // Wine only: the central component runs as LocalSystem beside the service, as on Windows.
  const lumera::dev::LocalSystemStandIn serviceAccount;
  try {
    std::vector<std::wstring> args;
    if (!ky::ProcessArguments(args)) return kExitFailed;
    Options options;
    const std::string reason = Parse(args, options);
    if (!reason.empty()) return Usage(reason);
    if (options.help) {
      Write(stdout, kHelp);
      return kExitOk;
    }
    return Run(options);
  } catch (...) {
    std::fputs("lumeracentral: unexpected failure\n", stderr);
    return kExitFailed;
  }
}
