// bench_storage.exe [--records N] [--iterations N]
//
// The backup store at N stored records (default 1,000) against picojson on the same file, in
// the same run, bare and store calls alternating:
// 1. one store operation: SaveStartupItem (read the file, add a record, write the file) against
//    reading, parsing, appending one element, serialising and writing the same file bare;
// 2. LoadStartupItems of every category against reading and parsing the file once per category.
// Last line: "storage op: R x bare".
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "../bench_files.h"
#include "../bench_timing.h"
#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/startup_storage.h"
#include "startup/storage_document.h"

namespace {

constexpr const char* kCategories[] = {startup::kCategoryDisabled, startup::kCategoryDelayed,
                                       startup::kCategoryStartupDisabled, startup::kCategoryStartupDelayed};
constexpr int kWarmup = 3;

struct Options {
  int records = 1000;
  int iterations = 30;
};

startup::StartupItemPtr Item(int i) {
  auto item = std::make_shared<startup::StartupItem>();
  const std::wstring n = std::to_wstring(i);
  item->name = L"Vendor application " + n;
  item->isUser = (i / 4) % 2;  // every category under both "user" and "system"
  item->location = item->isUser ? L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run"
                                : L"HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
  item->path = L"\"C:\\Program Files\\Vendor " + n + L"\\app" + n + L".exe\" --background --minimized";
  item->backupPath = L"C:\\ProgramData\\KyBkpFolder\\app" + n + L".lnk";
  return item;
}

// The file as the store writes it, with the records spread over every category.
std::string StoreText(int records) {
  picojson::value document(picojson::object{});
  for (int i = 0; i < records; ++i) {
    startup::storage::AppendItems(document, startup::StartupItemList{Item(i)}, kCategories[i % 4], 1700000000 + i);
  }
  return document.serialize();
}



// What any program does to change one JSON file: read it, parse it, add, serialise, write.
bool BareChange(const std::wstring& path) {
  std::string text;
  picojson::value document;
  if (!bench::ReadWhole(path, text) || !picojson::parse(document, text).empty() || !document.is<picojson::object>()) {
    return false;
  }
  picojson::value& user = document.get<picojson::object>()["user"];
  if (!user.is<picojson::object>()) return false;
  picojson::value& section = user.get<picojson::object>()[startup::kCategoryDisabled];
  if (!section.is<picojson::array>()) return false;
  section.get<picojson::array>().push_back(startup::storage::ItemToJson(*Item(-1), 1700000000));
  return bench::WriteWhole(path, document.serialize());
}

bool BareReads(const std::wstring& path, std::size_t* elements) {
  *elements = 0;
  for (std::size_t c = 0; c < std::size(kCategories); ++c) {
    std::string text;
    picojson::value document;
    if (!bench::ReadWhole(path, text) || !picojson::parse(document, text).empty()) return false;
    *elements += document.get("user").get(kCategories[c]).is<picojson::array>() ? 1 : 0;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!bench::ParseCountOptions(argc, argv, "usage: bench_storage.exe [--records N] [--iterations N]",
                                {{"--records", &options.records}, {"--iterations", &options.iterations}}, 1000000)) {
    return 2;
  }
  (void)bench::LogLevelAsDeployed();
  logging::LogRef keepLogBound;
  wchar_t temp[MAX_PATH + 1] = {};
  ::GetTempPathW(MAX_PATH, temp);
  const std::wstring path = std::wstring(temp) + L"lumera-bench-storage-" + std::to_wstring(::GetCurrentProcessId()) + L".json";
  const std::string original = StoreText(options.records);
  std::printf("Storage.json with %d records: %zu bytes\n", options.records, original.size());

  startup::storage::CStartupItemsStorage store;
  store.Init(path);
  std::vector<double> bareChange, storeChange, bareLoad, storeLoad;
  bool ok = true;
  std::size_t loaded = 0;
  for (int i = 0; i < options.iterations + kWarmup; ++i) {
    // Every operation starts from the same file of exactly N records.
    ok = bench::WriteWhole(path, original) && ok;
    double begin = bench::NowSeconds();
    ok = BareChange(path) && ok;
    const double bare = bench::NowSeconds() - begin;
    ok = bench::WriteWhole(path, original) && ok;
    begin = bench::NowSeconds();
    ok = store.SaveStartupItem(Item(-1), startup::kCategoryDisabled) == 0 && ok;
    const double module = bench::NowSeconds() - begin;
    ok = bench::WriteWhole(path, original) && ok;

    std::size_t elements = 0;
    begin = bench::NowSeconds();
    ok = BareReads(path, &elements) && ok;
    const double bareRead = bench::NowSeconds() - begin;
    startup::StartupItemList items;
    begin = bench::NowSeconds();
    for (const char* category : kCategories) ok = store.LoadStartupItems(category, items) == 0 && ok;
    const double moduleRead = bench::NowSeconds() - begin;
    loaded = items.size();
    if (i >= kWarmup) {
      bareChange.push_back(bare);
      storeChange.push_back(module);
      bareLoad.push_back(bareRead);
      storeLoad.push_back(moduleRead);
    }
  }
  ::DeleteFileW(path.c_str());
  if (loaded != static_cast<std::size_t>(options.records)) ok = false;

  const double bare = bench::Median(bareChange);
  const double change = bench::Median(storeChange);
  const double bareAll = bench::Median(bareLoad);
  const double loadAll = bench::Median(storeLoad);
  std::printf("bare read, parse, append, serialise, write: median %.2f ms\n", bare * 1e3);
  std::printf("SaveStartupItem: median %.2f ms (%.3f ms per stored record)\n", change * 1e3, change * 1e3 / options.records);
  std::printf("bare read and parse x %zu categories: median %.2f ms\n", std::size(kCategories), bareAll * 1e3);
  std::printf("LoadStartupItems of every category (%zu items): median %.2f ms, %.2f x bare%s\n", loaded, loadAll * 1e3,
              bareAll > 0 ? loadAll / bareAll : 0.0, ok ? "" : " (SOME OPERATIONS FAILED)");
  std::printf("storage op: %.2f x bare\n", bare > 0 ? change / bare : 0.0);
  return ok && bare > 0 ? 0 : 1;
}
