// fuzz_payload.exe: the "boottimepipe" payload reader, every element and the impact list in
// each of its three forms, as the server reads requests and the client reads replies.
#include <cstring>

#include "boottime/comm/payload.h"
#include "fuzz_driver.h"

namespace {

using boottime::CPayloadReader;
using boottime::CPayloadWriter;
using boottime::ProcessImpact;

// After a failed read every later read fails too, and nothing is left to read.
void CheckPoisoned(CPayloadReader& reader) {
  std::uint32_t value = 0;
  if (reader.Ok() || reader.Remaining() != 0 || reader.ReadU32(&value)) fuzz::Fail("a failed read did not poison the reader");
}

template <class ReadFn>
fuzz::Outcome One(const std::uint8_t* data, std::size_t size, int bit, ReadFn read) {
  CPayloadReader reader(data, size);
  if (!read(reader)) {
    CheckPoisoned(reader);
    return 0;
  }
  if (reader.Remaining() > size) fuzz::Fail("more left to read than was given");
  return fuzz::Outcome{1} << bit;
}

bool HasEmbeddedZero(const std::wstring& text) { return text.find(L'\0') != std::wstring::npos; }

fuzz::Outcome ReadPayload(const std::uint8_t* data, std::size_t size) {
  fuzz::Outcome outcome = 0;
  outcome |= One(data, size, 0, [](CPayloadReader& r) { std::uint32_t v; return r.ReadBootTime(&v); });
  outcome |= One(data, size, 1, [](CPayloadReader& r) { std::uint64_t v; return r.ReadU64(&v); });
  outcome |= One(data, size, 2, [](CPayloadReader& r) { double v; return r.ReadF64(&v); });
  outcome |= One(data, size, 3, [](CPayloadReader& r) { static std::wstring s; return r.ReadString(&s); });
  outcome |= One(data, size, 4, [](CPayloadReader& r) { boottime::BootCounters c; return r.ReadCounters(&c); });
  outcome |= One(data, size, 5, [](CPayloadReader& r) { boottime::ProcessKey k; return r.ReadProcessKey(&k); });
  outcome |= One(data, size, 6, [](CPayloadReader& r) { boottime::DiskSpeed s; return r.ReadDiskSpeed(&s); });
  // A history reply read whole writes back to the bytes it came from; an unreadable one adds nothing.
  outcome |= One(data, size, 12, [data, size](CPayloadReader& r) {
    ky::List<std::string> records;
    if (!r.ReadHistory(&records)) {
      if (records.Count() != 0) fuzz::Fail("an unreadable history reply gave records");
      return false;
    }
    boottime::CPayloadWriter again;
    again.WriteHistory(records, SIZE_MAX);
    if (again.Size() != size - r.Remaining() || std::memcmp(again.Data(), data, again.Size()) != 0) {
      fuzz::Fail("a history reply did not write back to its bytes");
    }
    return true;
  });

  // The three forms of the list agree, and a list read whole encodes back to the bytes it came from.
  static std::vector<ProcessImpact> asVector;
  asVector.clear();
  CPayloadReader vectorReader(data, size);
  const bool vectorOk = vectorReader.ReadImpactList(&asVector);
  ky::List<ProcessImpact> asList;
  CPayloadReader listReader(data, size);
  const bool listOk = listReader.ReadImpactList(&asList);
  std::size_t visited = 0;
  CPayloadReader visitReader(data, size);
  const bool visitOk = visitReader.ReadImpactList([&visited](const ProcessImpact&) { ++visited; });
  if (vectorOk != listOk || listOk != visitOk) fuzz::Fail("the impact list readers disagree");
  if (!vectorOk) {
    if (!asVector.empty() || asList.Count() != 0 || visited != 0) fuzz::Fail("an unreadable impact list gave entries");
    CheckPoisoned(vectorReader);
    return outcome;
  }
  if (asList.Count() != asVector.size() || visited != asVector.size()) fuzz::Fail("the impact list readers disagree");
  outcome |= fuzz::Outcome{1} << 7;
  bool plainNames = true;
  for (const ProcessImpact& impact : asVector) plainNames = plainNames && !HasEmbeddedZero(impact.name);
  if (plainNames) {
    CPayloadWriter writer;
    writer.WriteImpactList(asList);
    const std::size_t consumed = size - vectorReader.Remaining();
    if (writer.Size() != consumed || std::memcmp(writer.Data(), data, consumed) != 0) {
      fuzz::Fail("an impact list does not encode back to its bytes");
    }
  }
  // A request followed by trailing bytes, as a lying client may send it.
  CPayloadReader sequence(data, size);
  boottime::ProcessKey key;
  if (sequence.ReadProcessKey(&key) && sequence.Remaining() == 0) outcome |= fuzz::Outcome{1} << 8;
  return outcome | fuzz::Bucket(asVector.size()) << 9;
}

fuzz::Bytes Encoded(void (*write)(CPayloadWriter&)) {
  CPayloadWriter writer;
  write(writer);
  return fuzz::Bytes(writer.Data(), writer.Data() + writer.Size());
}

}  // namespace

int main(int argc, char** argv) {
  return fuzz::Run(argc, argv,
                   {.name = "payload",
                    .corpus = {Encoded([](CPayloadWriter& w) { w.WriteBootTime(41250); }),
                               Encoded([](CPayloadWriter& w) { w.WriteCounters(boottime::BootCounters{1, 2, 3, 4, 5}); }),
                               Encoded([](CPayloadWriter& w) { w.WriteProcessKey(4, 1000, L"C:\\Windows\\explorer.exe"); }),
                               Encoded([](CPayloadWriter& w) { w.WriteProcessKey(0, 0, L""); }),
                               Encoded([](CPayloadWriter& w) { w.WriteDiskSpeed(boottime::DiskSpeed{0.5, 99.5, 12.25}); }),
                               Encoded([](CPayloadWriter& w) { w.WriteImpactList(ky::List<ProcessImpact>()); }),
                               Encoded([](CPayloadWriter& w) {
                                 ky::List<ProcessImpact> impacts;
                                 impacts.Add({4, 1000, L"C:\\Windows\\explorer.exe", 10, 20, 4096, 512, 64});
                                 impacts.Add({1000, 1200, L"app.exe", 1, 2, 3, 4, 5});
                                 impacts.Add({0, 4, L"", 0, 0, 0, 0, 0});
                                 w.WriteImpactList(impacts);
                               })},
                    .maxBytes = 4096,
                    .read = &ReadPayload});
}
