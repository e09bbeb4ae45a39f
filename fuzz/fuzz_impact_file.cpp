// fuzz_impact_file.exe: "last_boot_time_process_impact.json" as the analyser loads it: each
// element of "processes" through the element reader, and (every Kth input) the whole load from
// the file followed by a store and a second load that must give the same impacts.
#include <windows.h>

#include <stdexcept>

#include "boottime/boot_time_analyser.h"
#include "common/json_file.h"
#include "fuzz_driver.h"

namespace {

using boottime::BootTimeAnalyser;
using boottime::ProcessImpact;

bool SameImpacts(const BootTimeAnalyser& a, const BootTimeAnalyser& b) {
  if (a.Impacts().size() != b.Impacts().size()) return false;
  auto j = b.Impacts().begin();
  for (const auto& [pid, x] : a.Impacts()) {
    const ProcessImpact& y = (j++)->second;
    if (pid != y.pid || x.ppid != y.ppid || x.name != y.name || x.kernel != y.kernel || x.user != y.user ||
        x.read != y.read || x.write != y.write || x.other != y.other) {
      return false;
    }
  }
  return true;
}

// Every impact loaded is selected by the all-processes key and counted in the total.
void CheckQueries(const BootTimeAnalyser& analyser) {
  ky::List<ProcessImpact> all;
  analyser.GetImpacts(boottime::ProcessKey{}, all);
  if (all.Count() != analyser.Impacts().size()) fuzz::Fail("the all-processes key missed loaded impacts");
  (void)analyser.GetTotal();
}

fuzz::Outcome ReadElements(const std::uint8_t* data, std::size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  picojson::value root;
  std::string error;
  if (!ky::ParseJsonText(text, text + size, root, error)) return 1;
  if (!root.is<picojson::object>()) return 2;
  const picojson::value& processes = root.get("processes");
  if (!processes.is<picojson::array>()) return 3;
  BootTimeAnalyser analyser;
  std::size_t read = 0;
  std::size_t refused = 0;
  std::size_t thrown = 0;
  for (const picojson::value& element : processes.get<picojson::array>()) {
    if (!element.is<picojson::object>()) continue;
    try {
      (analyser.ReadProcessImpactFromJsonValue(element) ? read : refused) += 1;
    } catch (const std::logic_error&) {
      // The element reader's documented way to refuse a number; the loader skips the element.
      ++thrown;
    }
  }
  CheckQueries(analyser);
  return 4 + (fuzz::Bucket(read) << 2 | fuzz::Bucket(refused) << 5 | fuzz::Bucket(thrown) << 8 |
              fuzz::Bucket(analyser.Impacts().size()) << 11);
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
      !SameImpacts(first, second)) {
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
