// bench_stored.exe [--records N] [--rounds R]
//
// The user's Storage.json filled with N records (default 5,000) that all name one existing
// program, listed and reported, against reading and parsing the same file bare in the same
// run, bare and module rounds alternating:
// 1. "startupctl.exe list --json" run beside this program, start to exit, output discarded;
// 2. the plug-in's startup report (CPluginStartupManager::BuildAndReport, not posted).
// The program is this benchmark itself, which has no version texts: every record is one that
// cannot be described, the case that used to cost a millisecond a record.
// Last lines: "stored records: N listed in T ms (R x bare parse)" and the like for the report.
// The user's own store is put aside for the run and put back after it.
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "../bench_files.h"
#include "../bench_timing.h"
#include "common/log.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "picojson.h"
#include "plugin/plugin_startup_manager.h"
#include "startup/startup_items.h"
#include "startup/startup_storage.h"
#include "startup/storage_document.h"

namespace {

constexpr DWORD kListTimeoutMs = 120000;

struct Options {
  int records = 5000;
  int rounds = 5;
};

std::wstring ThisProgram() {
  std::vector<wchar_t> buffer(32768);
  const DWORD chars = ::GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
  return std::wstring(buffer.data(), chars);
}

// The store as the actions write it: N Run entries of the user, all starting `program`.
std::string StoreText(int records, const std::wstring& program) {
  startup::StartupItemList items;
  for (int i = 0; i < records; ++i) {
    auto item = std::make_shared<startup::StartupItem>();
    item->name = L"Vendor application " + std::to_wstring(i);
    item->location = L"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
    item->path = L"\"" + program + L"\" --background";
    item->isUser = 1;
    items.push_back(std::move(item));
  }
  picojson::value document(picojson::object{});
  startup::storage::AppendItems(document, items, startup::kCategoryDisabled, 1700000000);
  return document.serialize();
}


// What any reader of the store must at least do: read the file and parse it.
bool BareParse(const std::wstring& path) {
  std::string text;
  picojson::value document;
  return bench::ReadWhole(path, text) && picojson::parse(document, text).empty() && document.is<picojson::object>();
}

// Runs startupctl.exe list --json with its output thrown away; false unless it exits with 0.
bool List(const std::wstring& tool) {
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  ky::unique_file null(::CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING,
                                     0, nullptr));
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = null.get();
  startup.hStdError = null.get();
  PROCESS_INFORMATION process{};
  std::wstring command = L"\"" + tool + L"\" list --json";
  if (!null || !::CreateProcessW(tool.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                 &process)) {
    return false;
  }
  const ky::unique_handle owner(process.hProcess);
  const ky::unique_handle thread(process.hThread);
  DWORD exitCode = 1;
  return ::WaitForSingleObject(owner.get(), kListTimeoutMs) == WAIT_OBJECT_0 &&
         ::GetExitCodeProcess(owner.get(), &exitCode) && exitCode == 0;
}

void Progress(const char* what, int done, int total) {
  std::fprintf(stderr, "\r%-30s %d/%d   ", what, done, total);
  std::fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!bench::ParseCountOptions(argc, argv, "usage: bench_stored.exe [--records N] [--rounds R]",
                                {{"--records", &options.records}, {"--rounds", &options.rounds}}, 1000000)) {
    return 2;
  }
  (void)bench::LogLevelAsDeployed();
  logging::LogRef keepLogBound;
  const std::wstring tool = ky::ThisModuleFolder() + L"startupctl.exe";

  // The store the tool and the report read: the console user's, as the service reaches it.
  std::wstring folder;
  {
    startup::CStartupItems sources;
    if (startup::storage::UserStorageFolder(sources.User().get(), folder) != 0) {
      std::fputs("bench_stored: no user's store folder\n", stderr);
      return 3;
    }
  }
  const std::wstring path = folder + startup::storage::kStorageFileName;
  const std::wstring aside = path + L".bench-" + std::to_wstring(::GetCurrentProcessId());
  const bool hadStore = ::MoveFileExW(path.c_str(), aside.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
  const std::string original = StoreText(options.records, ThisProgram());

  // No connection: the report is built and logged exactly as when sent, and not posted.
  boottime::CPluginStartupManager manager([] { return static_cast<IProductInfo*>(nullptr); }, L"no-pipelink.dll");
  (void)manager.Init();

  std::vector<double> bareTimes, listTimes, reportTimes;
  bool ok = true;
  for (int round = 0; round < options.rounds; ++round) {
    Progress("bare parse, list, report", round, options.rounds);
    // Every step starts from the same file: a report drops the records whose entry is gone.
    ok = bench::WriteWhole(path, original) && ok;
    double begin = bench::NowSeconds();
    ok = BareParse(path) && ok;
    bareTimes.push_back(bench::NowSeconds() - begin);
    begin = bench::NowSeconds();
    ok = List(tool) && ok;
    listTimes.push_back(bench::NowSeconds() - begin);
    ok = bench::WriteWhole(path, original) && ok;
    begin = bench::NowSeconds();
    (void)manager.BuildAndReport();
    reportTimes.push_back(bench::NowSeconds() - begin);
    ok = !manager.LastReport().empty() && ok;
  }
  ::DeleteFileW(path.c_str());
  if (hadStore) ::MoveFileExW(aside.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING);

  const double bare = bench::Median(bareTimes);
  const double listed = bench::Median(listTimes);
  const double reported = bench::Median(reportTimes);
  std::fprintf(stderr, "\r%-50s\r", "");
  std::printf("Storage.json with %d records naming one program: %zu bytes; medians of %d rounds%s\n", options.records,
              original.size(), options.rounds, ok ? "" : " (SOME STEPS FAILED)");
  std::printf("bare read and parse: %.2f ms\n", bare * 1e3);
  std::printf("stored records: %d listed in %.0f ms (%.1f x bare parse)\n", options.records, listed * 1e3,
              bare > 0 ? listed / bare : 0.0);
  std::printf("stored records: %d reported in %.0f ms (%.1f x bare parse)\n", options.records, reported * 1e3,
              bare > 0 ? reported / bare : 0.0);
  return ok && bare > 0 ? 0 : 1;
}
