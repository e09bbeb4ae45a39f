// fuzz_boot_history.exe: "boot_history.jsonl" through its codec: the records an input gives
// must encode and decode back the same, never more than the newest kept; and (every Kth input)
// the file read through its path.
#include <windows.h>

#include <cstdint>
#include <string>

#include "boottime/boot_history_file.h"
#include "common/json_file.h"
#include "fuzz_driver.h"

namespace {

using boottime::BootRecord;
using boottime::HistoryDocument;

fuzz::Outcome ReadLines(const std::uint8_t* data, std::size_t size) {
  const HistoryDocument document =
      boottime::DecodeHistory(std::string_view(reinterpret_cast<const char*>(data), size), 3);
  if (document.records.size() > 3) fuzz::Fail("more records than asked for");
  const HistoryDocument again = boottime::DecodeHistory(boottime::EncodeHistory(document.records));
  if (again.skipped != 0 || again.records.size() != document.records.size()) {
    fuzz::Fail("encoded records did not all decode back");
  }
  for (std::size_t i = 0; i < again.records.size(); ++i) {
    if (boottime::EncodeBootRecord(again.records[i]) != boottime::EncodeBootRecord(document.records[i])) {
      fuzz::Fail("a record changed through a round trip");
    }
  }
  std::size_t entries = 0;
  for (const BootRecord& record : document.records) entries += record.entries.size() + record.top.size();
  return fuzz::Bucket(document.records.size()) | fuzz::Bucket(document.skipped) << 3 | fuzz::Bucket(entries) << 6;
}

fuzz::Outcome ReadFile(const std::uint8_t* data, std::size_t size) {
  const std::wstring path = fuzz::ScratchFile(L"boot_history.jsonl");
  fuzz::WriteScratchFile(path, data, size);
  std::string bytes;
  if (ky::ReadFileBytes(path, bytes, boottime::kHistoryMaxFileBytes) != ky::JsonReadResult::kOk) return 1;
  return 2 + fuzz::Bucket(boottime::DecodeHistory(bytes).records.size());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string record =
      R"({"boot":"41250","cpu":"5000","disk":["0","100000","46145"],"end":"event","entries":[)"
      R"({"impact":["3600","10485760","0"],"kind":"run","name":"Workload","state":"disabled"},)"
      R"({"kind":"folder","name":"Notes.lnk","state":"delayed"}],"logon":"20000","processes":"57","read":"4096",)"
      R"("start":"133000000000000","top":[["C:\\Windows\\explorer.exe","900","4096","512"]],"user":"alice",)"
      R"("windows":"39900","written":"7"})";
  fuzz::Target target;
  target.name = "boot_history";
  target.json = true;
  target.maxBytes = 16 * 1024;
  target.read = &ReadLines;
  target.readFile = &ReadFile;
  target.fileEvery = 1024;
  target.dictionary = {"start", "boot", "end", "windows", "logon", "user", "cpu", "read", "written", "disk",
                       "processes", "top", "entries", "name", "kind", "state", "impact", "event", "quiet",
                       "logon-limit", "two-hours", "enabled", "disabled", "delayed", "\n", "\r\n"};
  target.corpus = {
      fuzz::ToBytes(record + "\n" + record + "\n"),
      fuzz::ToBytes(record + "\nnot json\n{}\n" + record),
      fuzz::ToBytes(R"({"boot":"1","cpu":"0","disk":["0","0","0"],"end":"quiet","entries":[],"logon":"0",)"
                    R"("processes":"0","read":"0","start":"-5","top":[],"user":"","written":"0"})"),
      fuzz::ToBytes("\n\n"),
  };
  return fuzz::Run(argc, argv, target);
}
