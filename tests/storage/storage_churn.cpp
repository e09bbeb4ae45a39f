// storage_churn.exe FOLDER seed|run|check
//
// The writer that killed_writers_test.sh kills from outside at random instants. "seed" makes a
// store of kFillers records and the two boot-time result files in FOLDER. "run" first checks
// what the last (killed) run left, then saves and removes store records through
// CStartupItemsStorage and rewrites both result files through the plug-in's own writers, until
// it is killed; it notes each save that returned 0 ("S id"), each removal before it starts
// ("R id") and after it returned 0 ("D id") in FOLDER\churn.log before going on. "check" only
// checks. The check: the store parses and holds every record noted saved and not yet being
// removed, none whose removal returned 0, and all fillers; both result files parse whole.
// Exit code 0, or 3 with "CHECK FAILED: ..." on standard output.
#include <windows.h>

#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "boottime/boot_time_analyser.h"
#include "boottime/boot_time_monitor.h"
#include "common/json_file.h"
#include "common/safe_file.h"
#include "common/unique_handle.h"
#include "startup/startup_storage.h"

namespace {

constexpr int kFillers = 300;
constexpr int kProcesses = 50;
constexpr std::size_t kLiveWindow = 20;
constexpr char kSection[] = "Disabled";
constexpr char kBootTime[] = "4242";
constexpr wchar_t kImpactFile[] = L"last_boot_time_process_impact.json";
constexpr int kCheckFailed = 3;

startup::StartupItemPtr Record(const std::wstring& name) {
  auto item = std::make_shared<startup::StartupItem>();
  item->name = name;
  item->location = L"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
  item->path = L"\"C:\\Program Files\\Vendor\\" + name + L".exe\" --background";
  item->isUser = 1;
  return item;
}

std::wstring ChurnName(long id) { return L"Churn" + std::to_wstring(id); }

int Fail(const std::string& why) {
  std::printf("CHECK FAILED: %s\n", why.c_str());
  std::fflush(stdout);
  return kCheckFailed;
}

class Journal {
 public:
  explicit Journal(const std::wstring& path)
      : file_(::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr)) {}
  bool ok() const { return static_cast<bool>(file_); }
  // One unbuffered write per line: a kill after it returns cannot lose the line.
  void Note(char what, long id) {
    const std::string line = std::string(1, what) + " " + std::to_string(id) + "\n";
    DWORD written = 0;
    (void)::WriteFile(file_.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  }

 private:
  ky::unique_file file_;
};

struct Replay {
  std::set<long> mustHold;   // saved, removal not started
  std::set<long> mustLack;   // removal returned 0
  long nextId = 0;
};

// Reads the journal; a last line cut short by the kill is ignored.
Replay ReadJournal(const std::wstring& path) {
  Replay replay;
  std::string text;
  (void)ky::ReadFileBytes(path, text, 64 * 1024 * 1024);
  std::istringstream lines(text.substr(0, text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1));
  char what = 0;
  long id = 0;
  while (lines >> what >> id) {
    if (what == 'S') replay.mustHold.insert(id);
    if (what == 'R') replay.mustHold.erase(id);
    if (what == 'D') replay.mustLack.insert(id);
    if (id + 1 > replay.nextId) replay.nextId = id + 1;
  }
  return replay;
}

int Check(const std::wstring& folder, Replay& replay) {
  startup::StartupItemList items;
  if (startup::storage::CStartupItemsStorage::Instance().LoadStartupItems(kSection, items) != 0) {
    return Fail("the store does not parse");
  }
  std::set<std::wstring> names;
  for (const auto& item : items) names.insert(item->name);
  for (int i = 0; i < kFillers; ++i) {
    if (names.count(L"Filler" + std::to_wstring(i)) == 0) return Fail("filler " + std::to_string(i) + " lost");
  }
  for (long id : replay.mustHold) {
    if (names.count(ChurnName(id)) == 0) return Fail("record " + std::to_string(id) + " saved with 0 but lost");
  }
  for (long id : replay.mustLack) {
    if (names.count(ChurnName(id)) != 0) return Fail("record " + std::to_string(id) + " removed with 0 but present");
  }
  picojson::value boot;
  std::string error;
  if (ky::ReadJsonFile(folder + boottime::BootTimeMonitor::kFileName, boot, error) != ky::JsonReadResult::kOk ||
      boot.get("bootTime").to_str() != kBootTime || !boot.get("systemStartTimestamp").is<std::string>()) {
    return Fail("the boot time file is not whole: " + error);
  }
  picojson::value impact;
  if (ky::ReadJsonFile(folder + kImpactFile, impact, error) != ky::JsonReadResult::kOk ||
      !impact.get("processes").is<picojson::array>() ||
      impact.get("processes").get<picojson::array>().size() != static_cast<std::size_t>(kProcesses)) {
    return Fail("the process impact file is not whole: " + error);
  }
  std::printf("checked %zu records\n", items.size());
  std::fflush(stdout);
  return 0;
}

int Seed(const std::wstring& folder) {
  startup::StartupItemList fillers;
  for (int i = 0; i < kFillers; ++i) fillers.push_back(Record(L"Filler" + std::to_wstring(i)));
  if (startup::storage::CStartupItemsStorage::Instance().SaveStartupItems(fillers, kSection) != 0) return 1;
  const std::string boot = std::string(R"({"bootTime":")") + kBootTime + R"(","systemStartTimestamp":"0"})";
  std::string processes;
  for (int pid = 1; pid <= kProcesses; ++pid) {
    processes += std::string(processes.empty() ? "" : ",") + R"({"counters":["1","2","3","4","5"],"name":"C:\\p)" +
                 std::to_string(pid) + R"(.exe","pid":")" + std::to_string(pid) + R"(","ppid":"0"})";
  }
  if (ky::WriteFileWhole(folder + boottime::BootTimeMonitor::kFileName, boot) != 0) return 1;
  return ky::WriteFileWhole(folder + kImpactFile, R"({"processes":[)" + processes + "]}") == 0 ? 0 : 1;
}

[[noreturn]] void Churn(const std::wstring& folder, Replay replay, Journal& journal) {
  auto& store = startup::storage::CStartupItemsStorage::Instance();
  boottime::BootTimeMonitor monitor;
  monitor.LoadLastBootTimeFromDisk(folder);
  boottime::BootTimeAnalyser analyser;
  (void)analyser.LoadLastBootProcessImpactFromDisk(folder + kImpactFile);
  std::set<long> live = replay.mustHold;
  for (long id = replay.nextId;; ++id) {
    if (store.SaveStartupItem(Record(ChurnName(id)), kSection) == 0) {
      journal.Note('S', id);
      live.insert(id);
    }
    monitor.StoreBootTimeOnDisk(folder);
    (void)analyser.StoreProcessImpactOnDisk(folder + kImpactFile);
    if (live.size() > kLiveWindow) {
      const long oldest = *live.begin();
      live.erase(live.begin());
      journal.Note('R', oldest);
      if (store.RemoveStartupItems({Record(ChurnName(oldest))}, kSection) == 0) journal.Note('D', oldest);
    }
  }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 3) {
    std::fputs("usage: storage_churn.exe FOLDER seed|run|check\n", stderr);
    return 2;
  }
  // The first line tells a run that died in its check from one that never started.
  std::printf("started\n");
  std::fflush(stdout);
  std::wstring folder = argv[1];
  if (folder.back() != L'\\') folder.push_back(L'\\');
  const std::wstring mode = argv[2];
  startup::storage::CStartupItemsStorage::Instance().Init(folder + startup::storage::kStorageFileName);
  if (mode == L"seed") return Seed(folder);
  Replay replay = ReadJournal(folder + L"churn.log");
  if (const int checked = Check(folder, replay); checked != 0 || mode == L"check") return checked;
  Journal journal(folder + L"churn.log");
  if (!journal.ok()) return 1;
  Churn(folder, std::move(replay), journal);
}
