// fuzz_storage.exe: "Storage.json" as the backup store reads and rewrites it: the document's
// sections, the boot-time list, removal and appending, and (every Kth input) the store's
// operations through the file itself.
#include <windows.h>

#include "common/json_file.h"
#include "fuzz_driver.h"
#include "startup/startup_storage.h"
#include "startup/storage_document.h"

namespace {

using startup::StartupItem;
using startup::StartupItemList;
namespace storage = startup::storage;

constexpr const char* kSections[] = {startup::kCategoryDisabled, startup::kCategoryDelayed,
                                     startup::kCategoryStartupDisabled, startup::kCategoryStartupDelayed};
constexpr std::int64_t kNow = 1700000000;

startup::StartupItemPtr NewItem() {
  auto item = std::make_shared<StartupItem>();
  item->name = L"Fuzzed";
  item->location = L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
  item->path = L"C:\\fuzz.exe --flag";
  item->backupPath = L"C:\\KyBkpFolder";
  item->isUser = 1;
  return item;
}

bool SameEntry(const StartupItem& a, const StartupItem& b) {
  return a.name == b.name && a.location == b.location && a.path == b.path && a.backupPath == b.backupPath;
}

fuzz::Outcome ReadDocument(const std::uint8_t* data, std::size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  picojson::value document;
  std::string error;
  if (!ky::ParseJsonText(text, text + size, document, error)) return 1;
  fuzz::Outcome outcome = 2 + (document.is<picojson::object>() ? 1 : document.is<picojson::array>() ? 2 : 3) * 4;
  StartupItemList items;
  for (const char* section : kSections) {
    storage::ReadSection(document, storage::kUserKey, section, 1, items);
    storage::ReadSection(document, storage::kSystemKey, section, 0, items);
  }
  std::vector<storage::BootTimeRecord> records;
  storage::ReadBootTimes(document, records);
  outcome |= fuzz::Bucket(items.size()) << 4 | fuzz::Bucket(records.size()) << 7;

  // Removing what a section holds empties it; what is appended then reads back alone.
  StartupItemList disabled;
  storage::ReadSection(document, storage::kUserKey, startup::kCategoryDisabled, 1, disabled);
  storage::RemoveItems(document, disabled, startup::kCategoryDisabled);
  StartupItemList left;
  storage::ReadSection(document, storage::kUserKey, startup::kCategoryDisabled, 1, left);
  if (!left.empty()) fuzz::Fail("removing a section's own items left some behind");
  const startup::StartupItemPtr added = NewItem();
  storage::AppendItems(document, StartupItemList{added}, startup::kCategoryDisabled, kNow);
  const std::string written = document.serialize();
  picojson::value reread;
  if (!ky::ParseJsonText(written.data(), written.data() + written.size(), reread, error)) {
    fuzz::Fail("the store wrote a document it cannot read back");
  }
  StartupItemList back;
  storage::ReadSection(reread, storage::kUserKey, startup::kCategoryDisabled, 1, back);
  if (back.size() != 1 || !SameEntry(*back[0], *added) || back[0]->changedTime != kNow) {
    fuzz::Fail("an appended item did not read back");
  }
  return outcome;
}

// The store's own operations on the input as "Storage.json".
fuzz::Outcome ReadStoreFile(const std::uint8_t* data, std::size_t size) {
  const std::wstring path = fuzz::ScratchFile(L"Storage.json");
  fuzz::WriteScratchFile(path, data, size);
  storage::CStartupItemsStorage store;
  store.Init(path);
  StartupItemList items;
  const std::uint32_t loaded = store.LoadStartupItems(startup::kCategoryDelayed, items);
  std::vector<storage::BootTimeRecord> records;
  const std::uint32_t bootTimes = store.LoadBootTime(records);
  if (loaded != bootTimes) fuzz::Fail("the store read one file two ways");
  const std::uint32_t removed = store.RemoveStartupItems(items, startup::kCategoryDelayed);
  const startup::StartupItemPtr added = NewItem();
  const std::uint32_t saved = store.SaveStartupItem(added, startup::kCategoryDelayed);
  StartupItemList back;
  if (removed != 0 || saved != 0 || store.LoadStartupItems(startup::kCategoryDelayed, back) != 0 || back.empty() ||
      !SameEntry(*back.back(), *added)) {
    fuzz::Fail("a saved item did not read back from the file");
  }
  return 1 + (loaded == 0 ? 1 : 0) * 2 + fuzz::Bucket(back.size()) * 4;
}

}  // namespace

int main(int argc, char** argv) {
  return fuzz::Run(
      argc, argv,
      {.name = "storage",
       .corpus = {fuzz::ToBytes("{}"), fuzz::ToBytes("[]"),
                  fuzz::ToBytes(
                      R"({"boot_time":[{"path":"C:\\app.exe","time":1200},{"path":"x","time":-1.5}],"system":{"Delayed":[{"BkpPath":"",)"
                      R"("ChangedTime":1700000000,"Cmd":"C:\\sys.exe","Name":"Sys","Path":"HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Run"}]},)"
                      R"("user":{"Disabled":[{"BkpPath":"","ChangedTime":1700000000,"Cmd":"C:\\a.exe -x","Name":"A","Path":"HKCU\\Run"},)"
                      R"({"Cmd":"C:\\b.exe","Name":"B","Path":"HKCU\\Run"}],"StartupDisabled":[{"BkpPath":"C:\\KyBkpFolder\\c.lnk",)"
                      R"("ChangedTime":1.7e9,"Cmd":"C:\\c.lnk","Name":"c.lnk","Path":"C:\\Startup"}]}})"),
                  fuzz::ToBytes(
                      R"({"user":{"Delayed":[{"Name":"\u00e9\u4e2d","Cmd":"\"C:\\x y.exe\" /s","Path":"p"}]},"system":null})")},
       .dictionary = {"user", "system", "boot_time", "Disabled", "Delayed", "StartupDisabled", "StartupDelayed", "Name",
                      "Cmd", "Path", "BkpPath", "ChangedTime", "path", "time"},
       .json = true,
       .maxBytes = 64 * 1024,
       .read = &ReadDocument,
       .readFile = &ReadStoreFile,
       .fileEvery = 1024});
}
