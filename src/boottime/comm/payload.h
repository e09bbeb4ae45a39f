// The flat little-endian encoding of "boottimepipe" payloads: a writer that starts in 1024
// bytes of inline space, and a bounded reader for untrusted bytes.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lumera/boottime.h"

namespace boottime {

inline constexpr std::size_t kPayloadInlineBytes = 1024;

class CPayloadWriter {
 public:
  CPayloadWriter() = default;
  CPayloadWriter(const CPayloadWriter&) = delete;
  CPayloadWriter& operator=(const CPayloadWriter&) = delete;

  const std::uint8_t* Data() const { return heap_.empty() ? inline_.data() : heap_.data(); }
  std::uint32_t Size() const { return static_cast<std::uint32_t>(size_); }
  bool OnHeap() const { return !heap_.empty(); }

  void WriteU32(std::uint32_t value);
  void WriteU64(std::uint64_t value);
  void WriteF64(double value);
  // N = code units including the terminating zero, then the text and a zero unit.
  void WriteString(const std::wstring& text);

  void WriteBootTime(std::uint32_t milliseconds) { WriteU32(milliseconds); }
  void WriteErrorCode(std::uint32_t code) { WriteU32(code); }
  void WriteCounters(const BootCounters& counters);
  void WriteCounters(const ProcessImpact& impact);
  void WriteProcessKey(std::uint64_t ppid, std::uint64_t pid, const std::wstring& name);
  void WriteProcessKey(const ProcessKey& key) { WriteProcessKey(key.ppid, key.pid, key.name); }
  // One entry of an impact list: its process key, then its counters.
  void WriteImpact(const ProcessImpact& impact);
  // Entries in the order the list's enumerator gives them.
  void WriteImpactList(const ky::IList<ProcessImpact>& impacts);
  void WriteDiskSpeed(const DiskSpeed& speed);
  // `size` bytes as they are.
  void WriteRaw(const void* data, std::size_t size);
  // u32 N, then N bytes of UTF-8 text (a history record as the file holds it).
  void WriteUtf8(const std::string& text);
  // u32 count, then the newest records of `records` (oldest first) that fit in `maxBytes`
  // together with the count; the older ones are left out.
  void WriteHistory(const ky::IList<std::string>& records, std::size_t maxBytes);

  // Overwrites four bytes already written at `offset`, such as a count known only later.
  void PatchU32(std::size_t offset, std::uint32_t value);
  // Drops everything written after the first `size` bytes.
  void Truncate(std::size_t size);

 private:
  std::uint8_t* Grow(std::size_t bytes);
  void Reserve(std::size_t bytes);

  std::array<std::uint8_t, kPayloadInlineBytes> inline_{};
  std::vector<std::uint8_t> heap_;
  std::size_t size_ = 0;
};

// Reads elements in order. A read that would pass the end leaves its output unwritten and
// moves the position one past the end, so every later read fails too.
class CPayloadReader {
 public:
  CPayloadReader(const void* data, std::size_t size);

  bool Ok() const { return pos_ <= size_; }
  std::size_t Remaining() const { return Ok() ? size_ - pos_ : 0; }

  [[nodiscard]] bool ReadU32(std::uint32_t* value);
  [[nodiscard]] bool ReadU64(std::uint64_t* value);
  [[nodiscard]] bool ReadF64(double* value);
  // Fails (poisoning the reader) unless the text ends with its zero unit.
  [[nodiscard]] bool ReadString(std::wstring* text);

  [[nodiscard]] bool ReadBootTime(std::uint32_t* milliseconds) { return ReadU32(milliseconds); }
  [[nodiscard]] bool ReadErrorCode(std::uint32_t* code) { return ReadU32(code); }
  // Field by field: on a short payload the fields before the end are written, the rest kept.
  [[nodiscard]] bool ReadCounters(BootCounters* counters);
  [[nodiscard]] bool ReadProcessKey(ProcessKey* key);
  // Appends the entries to *impacts only when the whole list could be read.
  [[nodiscard]] bool ReadImpactList(ky::IList<ProcessImpact>* impacts);
  [[nodiscard]] bool ReadImpactList(std::vector<ProcessImpact>* impacts);
  // Checks the whole list first, then hands each entry in order to visit(const ProcessImpact&);
  // nothing is visited when the list is unreadable.
  template <class Visit>
    requires std::invocable<Visit&, const ProcessImpact&>
  [[nodiscard]] bool ReadImpactList(Visit&& visit);
  [[nodiscard]] bool ReadDiskSpeed(DiskSpeed* speed);
  [[nodiscard]] bool ReadUtf8(std::string* text);
  // Appends the records to *records only when the whole list could be read.
  [[nodiscard]] bool ReadHistory(ky::IList<std::string>* records);
  // One list entry (key, then counters); on failure *impact may hold a part of it.
  [[nodiscard]] bool ReadImpact(ProcessImpact* impact);

 private:
  const std::uint8_t* Take(std::size_t bytes);
  [[nodiscard]] bool SkipImpact();
  // Reads the count and checks that every entry is readable; the position is left after the count.
  [[nodiscard]] bool CheckImpactList(std::uint32_t* count);

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

template <class Visit>
  requires std::invocable<Visit&, const ProcessImpact&>
bool CPayloadReader::ReadImpactList(Visit&& visit) {
  std::uint32_t count = 0;
  if (!CheckImpactList(&count)) return false;
  ProcessImpact impact;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!ReadImpact(&impact)) return false;
    visit(static_cast<const ProcessImpact&>(impact));
  }
  return true;
}

// The text DescribeImpact gives, as one format taking ppid, pid, name and the five counters, so
// that a log line is only formatted when its level is written.
#define BOOTTIME_IMPACT_FORMAT                                                                        \
  L"ppid=%I64u pid=%I64u name=%s cpuKernelTime=%u cpuUserTime=%u bytesRead=%u bytesWritten=%u " \
  L"bytesOther=%u"

// "ppid=.. pid=.. name=.. cpuKernelTime=.. ..." for log messages.
std::wstring DescribeImpact(const ProcessImpact& impact);
std::wstring DescribeCounters(const BootCounters& counters);
std::wstring DescribeKey(const ProcessKey& key);
std::wstring DescribeDiskSpeed(const DiskSpeed& speed);

}  // namespace boottime
