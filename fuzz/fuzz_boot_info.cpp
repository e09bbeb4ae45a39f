// fuzz_boot_info.exe: "last_boot_time_information.json" through its codec: the record of the
// document must encode and decode back the same; and (every Kth input) the monitor's own load
// from the file, followed by a store and a second load that must give the same boot time.
#include <windows.h>

#include <string>

#include "boottime/boot_info_file.h"
#include "boottime/boot_time_monitor.h"
#include "fuzz_driver.h"

namespace {

using boottime::BootInfoRecord;
using boottime::BootInfoStatus;
using boottime::BootTimeMonitor;

fuzz::Outcome ReadDocument(const std::uint8_t* data, std::size_t size) {
  BootInfoRecord record;
  std::string error;
  const BootInfoStatus status =
      boottime::DecodeBootInfo(std::string_view(reinterpret_cast<const char*>(data), size), record, error);
  if (status != BootInfoStatus::kOk) return status == BootInfoStatus::kParseError ? 1 : 2;
  if (record.bootTime && record.systemStart) {
    BootInfoRecord again;
    if (boottime::DecodeBootInfo(boottime::EncodeBootInfo(*record.systemStart, *record.bootTime), again, error) !=
            BootInfoStatus::kOk ||
        again.bootTime != record.bootTime || again.systemStart != record.systemStart) {
      fuzz::Fail("an encoded record did not decode back the same");
    }
  }
  return 3 + (record.hasBootTime ? 4 : 0) + (record.bootTime ? 8 + (*record.bootTime < 0 ? 8 : 0) : 0) +
         (record.systemStart ? 32 : 0);
}

// The monitor only reads from a folder: the scratch file's name ends in the file name it wants.
std::wstring ScratchFolder(const wchar_t* name) {
  const std::wstring path = fuzz::ScratchFile((std::wstring(name) + BootTimeMonitor::kFileName).c_str());
  return path.substr(0, path.size() - std::wstring(BootTimeMonitor::kFileName).size());
}

std::uint32_t Load(BootTimeMonitor& monitor, const std::wstring& folder, std::uint32_t& bootTime) {
  monitor.LoadLastBootTimeFromDisk(folder);
  return monitor.Result(&bootTime);
}

fuzz::Outcome LoadStoreLoad(const std::uint8_t* data, std::size_t size) {
  static const std::wstring folder = ScratchFolder(L"");
  static const std::wstring again = ScratchFolder(L"again-");
  fuzz::WriteScratchFile(folder + BootTimeMonitor::kFileName, data, size);
  BootTimeMonitor first;
  std::uint32_t bootTime = 0;
  // A fresh monitor's boot time is 0; a refused file must leave it so.
  const std::uint32_t status = Load(first, folder, bootTime);
  if (status == BootTimeMonitor::kStatusNone) {
    if (bootTime != 0) fuzz::Fail("a refused file changed the boot time");
    return 1;
  }
  if (status != BootTimeMonitor::kStatusFound) fuzz::Fail("the load ended with neither status");
  first.StoreBootTimeOnDisk(again);
  BootTimeMonitor second;
  std::uint32_t reloaded = 0;
  if (Load(second, again, reloaded) != BootTimeMonitor::kStatusFound || reloaded != bootTime) {
    fuzz::Fail("a stored boot time did not load back the same");
  }
  return 2 + (static_cast<std::int32_t>(bootTime) < 0 ? 1 : 0);
}

}  // namespace

int main(int argc, char** argv) {
  fuzz::Target target;
  target.name = "boot_info";
  target.json = true;
  target.maxBytes = 4096;
  target.read = &ReadDocument;
  target.readFile = &LoadStoreLoad;
  target.fileEvery = 16;
  target.dictionary = {"bootTime", "systemStartTimestamp", "2147483647", "-2147483648", "4294967296"};
  target.corpus = {
      fuzz::ToBytes(R"({"bootTime":"41250","systemStartTimestamp":"1700000000000"})"),
      fuzz::ToBytes(R"({"bootTime":"-1","systemStartTimestamp":"-5"})"),
      fuzz::ToBytes(R"({"bootTime":41250})"),
      fuzz::ToBytes(R"({"bootTime":"2147483648"})"),
      fuzz::ToBytes(R"({"bootTime":" 12","extra":[{"bootTime":"1"}]})"),
      fuzz::ToBytes("[]"),
  };
  return fuzz::Run(argc, argv, target);
}
