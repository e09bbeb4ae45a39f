// fuzz_impact_file.exe: "last_boot_time_process_impact.json" through its codec: the impacts an
// input gives must encode and decode back the same; and (every Kth input) the analyser's whole
// load from the file followed by a store and a second load that must give the same impacts.
#include <windows.h>

#include <cstdint>
#include <map>

#include "boottime/boot_time_analyser.h"
#include "boottime/impact_file.h"
#include "fuzz_driver.h"

namespace {

using boottime::BootTimeAnalyser;
using boottime::ImpactDocument;
using boottime::ImpactElement;
using boottime::ProcessImpact;
using Impacts = std::map<std::uint64_t, ProcessImpact>;

bool SameImpacts(const Impacts& a, const Impacts& b) {
  if (a.size() != b.size()) return false;
  auto j = b.begin();
  for (const auto& [pid, x] : a) {
    const ProcessImpact& y = (j++)->second;
    if (pid != y.pid || x.ppid != y.ppid || x.name != y.name || x.kernel != y.kernel || x.user != y.user ||
        x.read != y.read || x.write != y.write || x.other != y.other) {
      return false;
    }
  }
  return true;
}

// The impacts the analyser keeps from a document: each read element, the last one of a pid.
Impacts Kept(const ImpactDocument& document) {
  Impacts kept;
  for (const ImpactElement& element : document.elements) {
    if (element.outcome == ImpactElement::Outcome::kRead) kept[element.impact.pid] = element.impact;
  }
  return kept;
}

fuzz::Outcome ReadElements(const std::uint8_t* data, std::size_t size) {
  const ImpactDocument document = boottime::DecodeImpactFile(std::string_view(reinterpret_cast<const char*>(data), size));
  if (document.status != ImpactDocument::Status::kOk) return static_cast<fuzz::Outcome>(document.status);
  std::size_t counts[4] = {};
  for (const ImpactElement& element : document.elements) ++counts[static_cast<int>(element.outcome)];
  Impacts kept = Kept(document);
  // A negative id is read, but written back as its unsigned 64-bit value, which no reader
  // takes: the file has always been written so, and only the other impacts must come back.
  std::erase_if(kept, [](const auto& entry) { return entry.second.pid > INT32_MAX || entry.second.ppid > INT32_MAX; });
  if (!SameImpacts(kept, Kept(boottime::DecodeImpactFile(boottime::EncodeImpactFile(kept))))) {
    fuzz::Fail("encoded impacts did not decode back the same");
  }
  return 4 + (fuzz::Bucket(counts[0]) << 2 | fuzz::Bucket(counts[2]) << 5 | fuzz::Bucket(counts[3]) << 8 |
              fuzz::Bucket(kept.size()) << 11);
}

// Every impact loaded is selected by the all-processes key and counted in the total.
void CheckQueries(const BootTimeAnalyser& analyser) {
  ky::List<ProcessImpact> all;
  analyser.GetImpacts(boottime::ProcessKey{}, all);
  if (all.Count() != analyser.Impacts().size()) fuzz::Fail("the all-processes key missed loaded impacts");
  (void)analyser.GetTotal();
}

fuzz::Outcome LoadStoreLoad(const std::uint8_t* data, std::size_t size) {
  const std::wstring path = fuzz::ScratchFile(L"impact.json");
  const std::wstring again = fuzz::ScratchFile(L"impact-again.json");
  fuzz::WriteScratchFile(path, data, size);
  BootTimeAnalyser first;
  if (!first.LoadLastBootProcessImpactFromDisk(path)) return 1;
  CheckQueries(first);
  BootTimeAnalyser second;
  if (!first.StoreProcessImpactOnDisk(again) || !second.LoadLastBootProcessImpactFromDisk(again) ||
      !SameImpacts(first.Impacts(), second.Impacts())) {
    fuzz::Fail("stored impacts did not load back the same");
  }
  return 2 + fuzz::Bucket(first.Impacts().size()) * 2;
}

}  // namespace

int main(int argc, char** argv) {
  fuzz::Target target;
  target.name = "impact_file";
  target.json = true;
  target.maxBytes = 64 * 1024;
  target.read = &ReadElements;
  target.readFile = &LoadStoreLoad;
  target.fileEvery = 1024;
  target.dictionary = {"processes", "ppid", "pid", "name", "counters"};
  target.corpus = {
      fuzz::ToBytes(R"({"processes":[]})"),
      fuzz::ToBytes(
          R"({"processes":[{"counters":["10","20","4096","512","64"],"name":"C:\\Windows\\explorer.exe","pid":"1000","ppid":"4"},)"
          R"({"counters":["0","0","0","0","4294967295"],"name":"\u00e9.exe","pid":"2147483647","ppid":"0"},)"
          R"({"counters":["1","2","3","4"],"name":"short.exe","pid":"12","ppid":"1"},)"
          R"({"counters":"none","name":"x","pid":-5,"ppid":"abc"},{"name":"missing counters","pid":"3","ppid":"1"},7]})"),
      fuzz::ToBytes(R"({"processes":{}})"),
      fuzz::ToBytes("[1,2]"),
  };
  return fuzz::Run(argc, argv, target);
}
