// Boot impact arithmetic, the process-impact file, and the sample store it reads.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "boottime/boot_time_analyser.h"
#include "fakes.h"
#include "support/scratch_folder.h"

namespace boottime {
namespace {

using testing::Logged;

Sample S(std::int32_t time, std::int32_t kernel, std::int32_t user, std::int64_t read, std::int32_t write = 0,
         std::int32_t other = 0) {
  return Sample{time, kernel, user, static_cast<std::int32_t>(read), write, other};
}

class AnalyserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    analyser.Start(&data);
    log.clear();
  }
  void WriteFile(const std::string& text) { testsupport::WriteFileBytes(file, text); }
  const ProcessImpact& Impact(std::uint64_t pid) { return analyser.Impacts().at(pid); }
  static auto Fields(const ProcessImpact& i) {
    return std::make_tuple(i.ppid, i.name, i.kernel, i.user, i.read, i.write, i.other);
  }

  testsupport::CapturedLog log;
  BootTimeData data;
  BootTimeAnalyser analyser;
  testsupport::ScratchFolder folder;
  std::wstring file = folder.file(kProcessImpactFileName);
};

TEST_F(AnalyserTest, OneSampleGivesExactlyItsCumulativeValuesEveryTime) {
  data.AddProcess(4, 100, L"C:\\a.exe");
  data.AddSample(100, S(1000, 300, 200, 4096, 512, 64));
  data.AddProcess(4, 104, L"C:\\never-sampled.exe");
  analyser.AnalyseData();
  analyser.AnalyseData();  // a second analysis does not add up
  ASSERT_EQ(analyser.Impacts().size(), 1u) << "a process without samples gets no impact";
  EXPECT_EQ(Fields(Impact(100)),
            std::make_tuple(std::uint64_t{4}, std::wstring(L"C:\\a.exe"), 300u, 200u, 4096u, 512u, 64u));
}

TEST_F(AnalyserTest, StepsWithMoreCpuThanWallTimeOrAShrinkingOrWrappedCounterAddNothing) {
  data.AddProcess(0, 8, L"p");
  data.AddSample(8, S(1000, 100, 100, 1000, 10));
  data.AddSample(8, S(2000, 400, 1100, 3000, 20));   // kernel +300 counts; user +1000 == dt counts
  data.AddSample(8, S(3000, 1500, 1101, 2500, 30));  // kernel +1100 > dt: left out, not clipped; read goes down
  data.AddSample(8, S(4000, 1400, 1200, 2600, 40));  // kernel goes down: nothing
  data.AddProcess(0, 12, L"wrap");
  data.AddSample(12, S(1000, 0, 0, 0xFFFFFF00u));
  data.AddSample(12, S(2000, 0, 0, 0xFFFFFFF0u));
  data.AddSample(12, S(3000, 0, 0, 0x100));  // the 32-bit read counter wrapped
  analyser.AnalyseData();
  const ProcessImpact& p = Impact(8);
  EXPECT_EQ(p.kernel, 100u + 300u);
  EXPECT_EQ(p.user, 100u + 1000u + 1u + 99u);
  EXPECT_EQ(p.read, 1000u + 2000u + 100u) << "a negative read step adds nothing; the next one adds again";
  EXPECT_EQ(p.write, 40u);
  EXPECT_EQ(Impact(12).read, 0xFFFFFFF0u);
}

TEST_F(AnalyserTest, AFileWrittenAndLoadedGivesTheSameImpactsWithEveryNumberAsDecimalText) {
  data.AddProcess(0, 2147483644, L"C:\\Programme\\Gr\u00FC\u00DFe\\\u65E5\u672C.exe");
  data.AddSample(2147483644, S(1000, 7, 8, 0xFFFFFFFFu, static_cast<std::int32_t>(0x80000000u), 3));
  data.AddProcess(4, 40, L"C:\\b.exe");
  data.AddSample(40, S(1000, 1, 2, 3, 4, 5));
  analyser.AnalyseData();
  ASSERT_TRUE(analyser.StoreProcessImpactOnDisk(file));

  const std::string text = testsupport::ReadFileBytes(file);
  EXPECT_NE(text.find("{\"counters\":[\"1\",\"2\",\"3\",\"4\",\"5\"],\"name\":\"C:\\\\b.exe\",\"pid\":\"40\",\"ppid\":\"4\"}"),
            std::string::npos)
      << text;
  EXPECT_LT(text.find("\"pid\":\"40\""), text.find("\"pid\":\"2147483644\"")) << "ascending pid order";

  BootTimeAnalyser loaded;
  ASSERT_TRUE(loaded.LoadLastBootProcessImpactFromDisk(file));
  ASSERT_EQ(loaded.Impacts().size(), 2u);
  for (const auto& [pid, expected] : analyser.Impacts()) {
    EXPECT_EQ(Fields(loaded.Impacts().at(pid)), Fields(expected)) << "values above 2^31 survive";
  }
}

TEST_F(AnalyserTest, BadElementsAreSkippedOneByOneAndTheOthersLoad) {
  WriteFile(R"({"processes":[
    {"ppid":"1","pid":"10","name":"four","counters":["1","2","3","4"]},
    {"ppid":"1","pid":"11","counters":["1","2","3","4","5"]},
    {"ppid":"1","pid":"abc","name":"nan","counters":["1","2","3","4","5"]},
    {"ppid":"1","pid":"99999999999","name":"range","counters":["1","2","3","4","5"]},
    {"ppid":"1","pid":"13","name":"badcounter","counters":["1","x","3","4","5"]},
    "not an object",
    {"ppid":1,"pid":14,"name":"numbers","counters":[5,4,3,2,1]},
    {"ppid":"1","pid":"15","name":"notarray","counters":"1,2,3,4,5"},
    {"ppid":"2","pid":"16","name":"good","counters":["10","20","30","40","50"]}
  ]})");
  ASSERT_TRUE(analyser.LoadLastBootProcessImpactFromDisk(file));
  const std::wstring load = L"BootTimeAnalyser::LoadLastBootProcessImpactFromDisk";
  EXPECT_TRUE(Logged(log, load, L"Loading data from json"));
  EXPECT_TRUE(Logged(log, L"BootTimeAnalyser::ReadProcessImpactFromJsonValue",
                     L"[JSON] Not all keys present. skipping ...\n"));
  EXPECT_EQ(log.count(L"invalid stol argument"), 1u) << "the non-numeric pid skips only its element";
  EXPECT_EQ(log.count(L"stol argument out of range"), 1u) << "the pid out of range skips only its element";
  EXPECT_TRUE(Logged(log, L"BootTimeAnalyser::ReadProcessImpactFromJsonValue", L"[JSON] Counters not stored in an array"));
  EXPECT_TRUE(Logged(log, load, L"Skipping json entry. Not an object"));
  const auto& m = analyser.Impacts();
  EXPECT_EQ(m.size(), 4u) << "missing name, bad pid, pid out of range and a bad counter skip their element";
  ASSERT_TRUE(m.count(10)) << "four counters load the entry";
  EXPECT_EQ(m.at(10).kernel + m.at(10).user + m.at(10).read + m.at(10).write + m.at(10).other, 0u)
      << "with all counters 0";
  ASSERT_TRUE(m.count(14)) << "JSON numbers are read through their text";
  EXPECT_EQ(m.at(14).kernel, 5u);
  ASSERT_TRUE(m.count(15)) << "counters not in an array: loaded with zeros";
  EXPECT_EQ(m.at(15).read, 0u);
  ASSERT_TRUE(m.count(16));
  EXPECT_EQ(m.at(16).ppid, 2u);
  EXPECT_EQ(m.at(16).other, 50u);
}

TEST_F(AnalyserTest, FilesThatAreMissingUnwritableOrNotImpactDocumentsLoadNothing) {
  EXPECT_FALSE(analyser.LoadLastBootProcessImpactFromDisk(folder.file(L"missing.json")));
  EXPECT_TRUE(Logged(log, L"BootTimeAnalyser::LoadLastBootProcessImpactFromDisk",
                     L"Can't find last boot process impact data"));
  EXPECT_FALSE(analyser.StoreProcessImpactOnDisk(folder.file(L"no\\such.json")));
  EXPECT_TRUE(Logged(log, L"BootTimeAnalyser::StoreProcessImpactOnDisk", L"Failed to save boot impact in JSON"));
  std::string deep;
  for (int i = 0; i < 10000; ++i) deep += "{\"processes\":";
  const struct {
    std::string text;
    const wchar_t* logged;
  } documents[] = {
      {"{\"processes\":[", L"Invalid json file format : "},
      {deep, L"Invalid json file format : nested deeper than 100 levels"},
      {"[1,2]", L"Invalid last boot json file"},
      {"{\"processes\":{}}", L"Json not containing an array"},
      {"{}", L"Json not containing an array"},
  };
  for (const auto& document : documents) {
    WriteFile(document.text);
    log.clear();
    EXPECT_FALSE(analyser.LoadLastBootProcessImpactFromDisk(file)) << document.text.substr(0, 40);
    EXPECT_TRUE(log.contains(document.logged)) << document.text.substr(0, 40);
  }
  EXPECT_TRUE(analyser.Empty());
}

TEST_F(AnalyserTest, ImpactsAreSelectedByPidAndByNameWithoutRegardToCase) {
  WriteFile(R"({"processes":[
    {"ppid":"0","pid":"4","name":"C:\\Windows\\explorer.exe","counters":["1","1","1","1","1"]},
    {"ppid":"0","pid":"8","name":"C:\\Tools\\a.exe","counters":["4294967295","2","0","0","0"]},
    {"ppid":"0","pid":"12","name":"C:\\Tools\\A.EXE","counters":["1","3","0","0","7"]}
  ]})");
  ASSERT_TRUE(analyser.LoadLastBootProcessImpactFromDisk(file));

  auto pids = [&](const ProcessKey& key) {
    ky::List<ProcessImpact> list;
    analyser.GetImpacts(key, list);
    std::vector<std::uint64_t> out;
    for (const ProcessImpact& i : ky::ToVector<ProcessImpact>(list)) out.push_back(i.pid);
    return out;
  };
  EXPECT_EQ(pids(ProcessKey{}), (std::vector<std::uint64_t>{4, 8, 12}));
  EXPECT_EQ(pids(ProcessKey{0, 8, L""}), (std::vector<std::uint64_t>{8}));
  EXPECT_EQ(pids(ProcessKey{0, 0, L"c:\\tools\\a.exe"}), (std::vector<std::uint64_t>{8, 12}));
  EXPECT_EQ(pids(ProcessKey{0, 12, L"c:\\windows\\explorer.exe"}), (std::vector<std::uint64_t>{}));

  const BootCounters total = analyser.GetTotal();
  EXPECT_EQ(total.kernel, 0xFFFFFFFFu) << "saturates instead of wrapping";
  EXPECT_EQ(total.user, 6u);
  EXPECT_EQ(total.other, 8u);
}

TEST_F(AnalyserTest, SamplesOfUnknownProcessesAreSkippedAndListingAndDumpHaveTheirFixedShape) {
  data.AddProcess(0, 8, L"p.exe");
  data.AddSample(8, S(1000, 1, 2, 3, 4, 5));
  data.AddSample(77, S(9000, 1, 2, 3, 4, 5));  // never entered: skipped
  EXPECT_TRUE(Logged(log, L"BootTimeData::AddSample",
                     L"Can't find process to add data for; Most likely AddProcess was not called for it; skipping"));
  EXPECT_EQ(data.GreatestSampleTime(), 1000u);
  analyser.AnalyseData();

  std::wostringstream listing;
  analyser.WriteListing(listing);
  EXPECT_EQ(listing.str(), L"process impact\n\n8,p.exe,1,2,3,4,5\ndone process impact\n\n");
  std::wostringstream dump;
  data.Dump(dump);
  EXPECT_EQ(dump.str(),
            L"samples\np.exe 8\ntime=1000 cpuKernelTime=1 cpuUserTime=2 bytesRead=3 bytesWritten=4 bytesOther=5 \n"
            L"done samples\n");
}

}  // namespace
}  // namespace boottime
