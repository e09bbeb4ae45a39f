#include "boottime/comm/payload.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

#include "common/com_ptr.h"

namespace boottime {
namespace {

static_assert(sizeof(wchar_t) == 2, "strings are copied as UTF-16 code units");

// ppid, pid, the shortest string (count and its zero unit) and five counters.
constexpr std::size_t kMinImpactBytes = 8 + 8 + 4 + 2 + 5 * 4;

template <class T>
void PutLE(std::uint8_t* at, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

template <class T>
T GetLE(const std::uint8_t* at) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(at[i]) << (8 * i);
  return value;
}

}  // namespace

// ---- writer --------------------------------------------------------------------------

// heap_ is used as raw storage: its size is the capacity, size_ the bytes written.
void CPayloadWriter::Reserve(std::size_t bytes) {
  if (heap_.empty() && bytes <= inline_.size()) return;
  if (bytes <= heap_.size()) return;
  if (heap_.empty()) {
    std::vector<std::uint8_t> grown(bytes);
    std::memcpy(grown.data(), inline_.data(), size_);
    heap_.swap(grown);
    return;
  }
  heap_.resize(bytes);
}

std::uint8_t* CPayloadWriter::Grow(std::size_t bytes) {
  const std::size_t at = size_;
  const std::size_t capacity = heap_.empty() ? inline_.size() : heap_.size();
  if (at + bytes > capacity) Reserve(std::max(at + bytes, capacity * 2));
  size_ = at + bytes;
  return (heap_.empty() ? inline_.data() : heap_.data()) + at;
}

void CPayloadWriter::WriteU32(std::uint32_t value) { PutLE(Grow(4), value); }
void CPayloadWriter::WriteU64(std::uint64_t value) { PutLE(Grow(8), value); }

void CPayloadWriter::WriteF64(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  WriteU64(bits);
}

void CPayloadWriter::WriteString(const std::wstring& text) {
  // Text past an embedded zero would not survive the reader, so it is not sent.
  const std::size_t units = std::wcslen(text.c_str());
  WriteU32(static_cast<std::uint32_t>(units + 1));
  // UTF-16 code units in little-endian order are wchar_t's own layout on Windows.
  std::memcpy(Grow((units + 1) * 2), text.c_str(), (units + 1) * 2);
}

void CPayloadWriter::WriteRaw(const void* data, std::size_t size) {
  if (size != 0) std::memcpy(Grow(size), data, size);
}

void CPayloadWriter::WriteUtf8(const std::string& text) {
  WriteU32(static_cast<std::uint32_t>(text.size()));
  WriteRaw(text.data(), text.size());
}

void CPayloadWriter::WriteHistory(const ky::IList<std::string>& records, std::size_t maxBytes) {
  std::vector<const std::string*> all;
  const ky::com_ptr<ky::ConstListEnum<std::string>> e(records.ConstEnum());
  const std::string* item = nullptr;
  while (e->Next(&item)) all.push_back(item);
  std::size_t first = all.size();
  for (std::size_t bytes = 4; first > 0 && bytes + 4 + all[first - 1]->size() <= maxBytes; --first) {
    bytes += 4 + all[first - 1]->size();
  }
  WriteU32(static_cast<std::uint32_t>(all.size() - first));
  for (std::size_t i = first; i < all.size(); ++i) WriteUtf8(*all[i]);
}

void CPayloadWriter::WriteCounters(const BootCounters& c) {
  WriteU32(c.kernel);
  WriteU32(c.user);
  WriteU32(c.read);
  WriteU32(c.write);
  WriteU32(c.other);
}

void CPayloadWriter::WriteCounters(const ProcessImpact& i) {
  WriteCounters(BootCounters{i.kernel, i.user, i.read, i.write, i.other});
}

void CPayloadWriter::WriteProcessKey(std::uint64_t ppid, std::uint64_t pid, const std::wstring& name) {
  WriteU64(ppid);
  WriteU64(pid);
  WriteString(name);
}

void CPayloadWriter::WriteImpact(const ProcessImpact& impact) {
  WriteProcessKey(impact.ppid, impact.pid, impact.name);
  WriteCounters(impact);
}

void CPayloadWriter::WriteImpactList(const ky::IList<ProcessImpact>& impacts) {
  const std::size_t countAt = size_;
  WriteU32(0);
  std::uint32_t count = 0;
  const ky::com_ptr<ky::ConstListEnum<ProcessImpact>> e(impacts.ConstEnum());
  const ProcessImpact* item = nullptr;
  while (e->Next(&item)) {
    WriteImpact(*item);
    ++count;
  }
  PatchU32(countAt, count);
}

void CPayloadWriter::WriteDiskSpeed(const DiskSpeed& speed) {
  WriteF64(speed.minimum);
  WriteF64(speed.maximum);
  WriteF64(speed.average);
}

void CPayloadWriter::PatchU32(std::size_t offset, std::uint32_t value) {
  if (offset + 4 <= size_) PutLE((heap_.empty() ? inline_.data() : heap_.data()) + offset, value);
}

void CPayloadWriter::Truncate(std::size_t size) { size_ = std::min(size_, size); }

// ---- reader --------------------------------------------------------------------------

CPayloadReader::CPayloadReader(const void* data, std::size_t size)
    : data_(static_cast<const std::uint8_t*>(data)), size_(data == nullptr ? 0 : size) {}

const std::uint8_t* CPayloadReader::Take(std::size_t bytes) {
  if (!Ok() || bytes > size_ - pos_) {
    pos_ = size_ + 1;
    return nullptr;
  }
  const std::uint8_t* at = data_ + pos_;
  pos_ += bytes;
  return at;
}

bool CPayloadReader::ReadU32(std::uint32_t* value) {
  const std::uint8_t* at = Take(4);
  if (at == nullptr) return false;
  *value = GetLE<std::uint32_t>(at);
  return true;
}

bool CPayloadReader::ReadU64(std::uint64_t* value) {
  const std::uint8_t* at = Take(8);
  if (at == nullptr) return false;
  *value = GetLE<std::uint64_t>(at);
  return true;
}

bool CPayloadReader::ReadF64(double* value) {
  std::uint64_t bits = 0;
  if (!ReadU64(&bits)) return false;
  std::memcpy(value, &bits, sizeof bits);
  return true;
}

bool CPayloadReader::ReadUtf8(std::string* text) {
  std::uint32_t bytes = 0;
  if (!ReadU32(&bytes)) return false;
  if (bytes == 0) {
    text->clear();
    return true;
  }
  const std::uint8_t* at = Take(bytes);
  if (at == nullptr) return false;
  text->assign(reinterpret_cast<const char*>(at), bytes);
  return true;
}

bool CPayloadReader::ReadHistory(ky::IList<std::string>* records) {
  std::uint32_t count = 0;
  if (!ReadU32(&count)) return false;
  // The whole list is checked before anything is taken, so each record is copied once.
  const std::size_t listAt = pos_;
  std::uint32_t bytes = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!ReadU32(&bytes) || (bytes != 0 && Take(bytes) == nullptr)) return false;
  }
  const std::size_t end = pos_;
  pos_ = listAt;
  std::string text;
  for (std::uint32_t i = 0; i < count; ++i) {
    (void)ReadUtf8(&text);
    records->Add(text);
  }
  pos_ = end;
  return true;
}

bool CPayloadReader::ReadString(std::wstring* text) {
  std::uint32_t units = 0;
  if (!ReadU32(&units)) return false;
  const std::uint8_t* at = units == 0 ? nullptr : Take(static_cast<std::size_t>(units) * 2);
  if (at == nullptr || GetLE<std::uint16_t>(at + 2 * (units - 1)) != 0) {
    pos_ = size_ + 1;
    return false;
  }
  // Assigned in place so that a reused string keeps its storage.
  text->resize(units - 1);
  if (units > 1) std::memcpy(text->data(), at, static_cast<std::size_t>(units - 1) * 2);
  return true;
}

bool CPayloadReader::ReadCounters(BootCounters* c) {
  std::uint32_t* fields[] = {&c->kernel, &c->user, &c->read, &c->write, &c->other};
  bool ok = true;
  for (std::uint32_t* field : fields) ok = ReadU32(field) && ok;
  return ok;
}

bool CPayloadReader::ReadProcessKey(ProcessKey* key) {
  bool ok = ReadU64(&key->ppid);
  ok = ReadU64(&key->pid) && ok;
  return ReadString(&key->name) && ok;
}

bool CPayloadReader::ReadImpact(ProcessImpact* impact) {
  BootCounters counters;
  if (!ReadU64(&impact->ppid) || !ReadU64(&impact->pid) || !ReadString(&impact->name) || !ReadCounters(&counters)) {
    return false;
  }
  impact->kernel = counters.kernel;
  impact->user = counters.user;
  impact->read = counters.read;
  impact->write = counters.write;
  impact->other = counters.other;
  return true;
}

bool CPayloadReader::SkipImpact() {
  std::uint32_t units = 0;
  if (Take(16) == nullptr || !ReadU32(&units)) return false;
  const std::uint8_t* at = units == 0 ? nullptr : Take(static_cast<std::size_t>(units) * 2);
  if (at == nullptr || GetLE<std::uint16_t>(at + 2 * (units - 1)) != 0 || Take(20) == nullptr) {
    pos_ = size_ + 1;
    return false;
  }
  return true;
}

bool CPayloadReader::CheckImpactList(std::uint32_t* count) {
  if (!ReadU32(count)) return false;
  // A count the remaining bytes cannot hold is rejected before anything is allocated.
  if (*count > Remaining() / kMinImpactBytes) {
    pos_ = size_ + 1;
    return false;
  }
  const std::size_t start = pos_;
  for (std::uint32_t i = 0; i < *count; ++i) {
    if (!SkipImpact()) return false;
  }
  pos_ = start;
  return true;
}

bool CPayloadReader::ReadImpactList(ky::IList<ProcessImpact>* impacts) {
  return ReadImpactList([impacts](const ProcessImpact& impact) { impacts->Add(impact); });
}

bool CPayloadReader::ReadImpactList(std::vector<ProcessImpact>* impacts) {
  return ReadImpactList([impacts](const ProcessImpact& impact) { impacts->push_back(impact); });
}

bool CPayloadReader::ReadDiskSpeed(DiskSpeed* speed) {
  bool ok = ReadF64(&speed->minimum);
  ok = ReadF64(&speed->maximum) && ok;
  return ReadF64(&speed->average) && ok;
}

// ---- log text ------------------------------------------------------------------------
// Built by hand rather than with a formatted print: these run for every entry of a reply.

namespace {

void AppendNumber(std::wstring& out, const wchar_t* label, std::uint64_t value) {
  out += label;
  wchar_t digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<wchar_t>(L'0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n > 0) out += digits[--n];
}

void AppendCounters(std::wstring& out, const BootCounters& c) {
  AppendNumber(out, L"cpuKernelTime=", c.kernel);
  AppendNumber(out, L" cpuUserTime=", c.user);
  AppendNumber(out, L" bytesRead=", c.read);
  AppendNumber(out, L" bytesWritten=", c.write);
  AppendNumber(out, L" bytesOther=", c.other);
}

void AppendKey(std::wstring& out, std::uint64_t ppid, std::uint64_t pid, const std::wstring& name) {
  AppendNumber(out, L"ppid=", ppid);
  AppendNumber(out, L" pid=", pid);
  out += L" name=";
  out += name;
}

}  // namespace

std::wstring DescribeCounters(const BootCounters& c) {
  std::wstring out;
  out.reserve(128);
  AppendCounters(out, c);
  return out;
}

std::wstring DescribeKey(const ProcessKey& key) {
  std::wstring out;
  out.reserve(64 + key.name.size());
  AppendKey(out, key.ppid, key.pid, key.name);
  return out;
}

std::wstring DescribeImpact(const ProcessImpact& i) {
  std::wstring out;
  out.reserve(192 + i.name.size());
  AppendKey(out, i.ppid, i.pid, i.name);
  out += L' ';
  AppendCounters(out, BootCounters{i.kernel, i.user, i.read, i.write, i.other});
  return out;
}

std::wstring DescribeDiskSpeed(const DiskSpeed& speed) {
  wchar_t buffer[256];
  const int n = std::swprintf(buffer, sizeof buffer / sizeof buffer[0], L"min_hddUsage=%g max_hddUsage=%g average_hddUsage=%g",
                              speed.minimum, speed.maximum, speed.average);
  return n < 0 ? std::wstring() : std::wstring(buffer, static_cast<std::size_t>(n));
}

}  // namespace boottime
