#include "boottime/boot_history_file.h"

#include <algorithm>
#include <limits>
#include <type_traits>

#include "common/decimal_text.h"
#include "common/json_file.h"
#include "common/text_convert.h"

namespace boottime {
namespace {

// The nesting of a record is three levels; anything deeper is not one.
constexpr std::size_t kRecordDepth = 4;

constexpr const char* kEndNames[] = {"event", "quiet", "logon-limit", "two-hours"};
constexpr const char* kStateNames[] = {"enabled", "disabled", "delayed"};

std::wstring Cut(const std::wstring& text) { return text.substr(0, kHistoryMaxText); }

picojson::value Number(std::uint64_t value) { return picojson::value(std::to_string(value)); }
picojson::value Text(const std::wstring& text) { return picojson::value(ky::WideToUtf8(Cut(text))); }

picojson::value ImpactFields(const HistoryImpact& impact, bool withImage) {
  picojson::array fields;
  if (withImage) fields.push_back(Text(impact.image));
  for (std::uint32_t n : {impact.cpuMs, impact.bytesRead, impact.bytesWritten}) fields.push_back(Number(n));
  return picojson::value(std::move(fields));
}

// Reads the record field by field; the first missing or malformed one ends it.
class Reader {
 public:
  Reader(const picojson::object& object, std::string& error) : object_(object), error_(error) {}

  const picojson::value* Find(const char* key) const {
    const auto it = object_.find(key);
    return it == object_.end() ? nullptr : &it->second;
  }

  template <class Int>
  bool Whole(const picojson::value* value, const char* what, Int& out) {
    std::int64_t parsed = 0;
    const std::int64_t minimum = std::is_signed_v<Int> ? std::numeric_limits<std::int64_t>::min() + 1 : 0;
    const std::int64_t maximum = static_cast<std::int64_t>(
        std::min<std::uint64_t>(std::numeric_limits<Int>::max(), std::numeric_limits<std::int64_t>::max()));
    if (value == nullptr || !value->is<std::string>() ||
        ky::ParseDecimal(value->get<std::string>(), ky::DecimalForm::kWhole, minimum, maximum, parsed) !=
            ky::DecimalResult::kOk) {
      return Fail(what);
    }
    out = static_cast<Int>(parsed);
    return true;
  }
  template <class Int>
  bool Whole(const char* key, Int& out) {
    return Whole(Find(key), key, out);
  }

  bool String(const picojson::value* value, const char* what, std::wstring& out) {
    if (value == nullptr || !value->is<std::string>() || value->get<std::string>().size() > kHistoryMaxText * 4) {
      return Fail(what);
    }
    out = ky::Utf8ToWide(value->get<std::string>());
    return true;
  }

  template <std::size_t N>
  bool Name(const picojson::value* value, const char* what, const char* const (&names)[N], std::uint8_t& out) {
    if (value != nullptr && value->is<std::string>()) {
      for (std::size_t i = 0; i < N; ++i) {
        if (value->get<std::string>() == names[i]) {
          out = static_cast<std::uint8_t>(i);
          return true;
        }
      }
    }
    return Fail(what);
  }

  // [image,] cpu, read, written
  bool Impact(const picojson::value& value, bool withImage, HistoryImpact& out) {
    if (!value.is<picojson::array>() || value.get<picojson::array>().size() != (withImage ? 4u : 3u)) {
      return Fail("impact");
    }
    const picojson::array& fields = value.get<picojson::array>();
    std::size_t i = 0;
    if (withImage && !String(&fields[i++], "image", out.image)) return false;
    return Whole(&fields[i], "cpu", out.cpuMs) && Whole(&fields[i + 1], "read", out.bytesRead) &&
           Whole(&fields[i + 2], "written", out.bytesWritten);
  }

  const picojson::array* Array(const char* key, std::size_t maximum) {
    const picojson::value* value = Find(key);
    if (value == nullptr || !value->is<picojson::array>() || value->get<picojson::array>().size() > maximum) {
      Fail(key);
      return nullptr;
    }
    return &value->get<picojson::array>();
  }

  bool Fail(const char* what) {
    error_ = std::string("bad or missing \"") + what + "\"";
    return false;
  }

 private:
  const picojson::object& object_;
  std::string& error_;
};

}  // namespace

const char* BootEndName(BootEnd end) { return kEndNames[static_cast<std::size_t>(end)]; }
const char* StartupStateName(StartupState state) { return kStateNames[static_cast<std::size_t>(state)]; }

std::string EncodeBootRecord(const BootRecord& record) {
  picojson::object object;
  object["start"] = picojson::value(std::to_string(record.systemStart));
  object["boot"] = Number(record.bootTime);
  object["end"] = picojson::value(BootEndName(record.end));
  if (record.windowsBootTime) object["windows"] = Number(*record.windowsBootTime);
  object["logon"] = Number(record.logonTime);
  object["user"] = Text(record.user);
  object["cpu"] = Number(record.cpuMs);
  object["read"] = Number(record.bytesRead);
  object["written"] = Number(record.bytesWritten);
  object["disk"] = picojson::value(picojson::array{Number(record.diskMin), Number(record.diskMax),
                                                   Number(record.diskAverage)});
  object["processes"] = Number(record.processes);
  picojson::array top;
  for (std::size_t i = 0; i < record.top.size() && i < kHistoryTopImpacts; ++i) {
    top.push_back(ImpactFields(record.top[i], true));
  }
  object["top"] = picojson::value(std::move(top));
  picojson::array entries;
  for (std::size_t i = 0; i < record.entries.size() && i < kHistoryMaxEntries; ++i) {
    const HistoryEntry& entry = record.entries[i];
    picojson::object e;
    e["name"] = Text(entry.name);
    e["kind"] = Text(entry.kind);
    e["state"] = picojson::value(StartupStateName(entry.state));
    if (entry.impact) e["impact"] = ImpactFields(*entry.impact, false);
    entries.emplace_back(std::move(e));
  }
  object["entries"] = picojson::value(std::move(entries));
  return picojson::value(std::move(object)).serialize();
}

std::optional<BootRecord> DecodeBootRecord(std::string_view line, std::string& error) {
  error.clear();
  if (line.size() > kHistoryMaxLineBytes) {
    error = "line too long";
    return std::nullopt;
  }
  picojson::value document;
  if (!ky::ParseJsonText(line.data(), line.data() + line.size(), document, error, kRecordDepth)) return std::nullopt;
  if (!document.is<picojson::object>()) {
    error = "not an object";
    return std::nullopt;
  }
  Reader reader(document.get<picojson::object>(), error);
  BootRecord record;
  std::uint8_t end = 0;
  if (!reader.Whole("start", record.systemStart) || !reader.Whole("boot", record.bootTime) ||
      !reader.Name(reader.Find("end"), "end", kEndNames, end) || !reader.Whole("logon", record.logonTime) ||
      !reader.String(reader.Find("user"), "user", record.user) || !reader.Whole("cpu", record.cpuMs) ||
      !reader.Whole("read", record.bytesRead) || !reader.Whole("written", record.bytesWritten) ||
      !reader.Whole("processes", record.processes)) {
    return std::nullopt;
  }
  record.end = static_cast<BootEnd>(end);
  if (const picojson::value* windows = reader.Find("windows")) {
    std::uint32_t time = 0;
    if (!reader.Whole(windows, "windows", time)) return std::nullopt;
    record.windowsBootTime = time;
  }
  const picojson::array* disk = reader.Array("disk", 3);
  if (disk == nullptr || disk->size() != 3 || !reader.Whole(&(*disk)[0], "disk", record.diskMin) ||
      !reader.Whole(&(*disk)[1], "disk", record.diskMax) || !reader.Whole(&(*disk)[2], "disk", record.diskAverage)) {
    (void)reader.Fail("disk");
    return std::nullopt;
  }
  const picojson::array* top = reader.Array("top", kHistoryTopImpacts);
  if (top == nullptr) return std::nullopt;
  for (const picojson::value& value : *top) {
    if (!reader.Impact(value, true, record.top.emplace_back())) return std::nullopt;
  }
  const picojson::array* entries = reader.Array("entries", kHistoryMaxEntries);
  if (entries == nullptr) return std::nullopt;
  for (const picojson::value& value : *entries) {
    if (!value.is<picojson::object>()) {
      (void)reader.Fail("entries");
      return std::nullopt;
    }
    Reader fields(value.get<picojson::object>(), error);
    HistoryEntry& entry = record.entries.emplace_back();
    std::uint8_t state = 0;
    if (!fields.String(fields.Find("name"), "name", entry.name) ||
        !fields.String(fields.Find("kind"), "kind", entry.kind) ||
        !fields.Name(fields.Find("state"), "state", kStateNames, state)) {
      return std::nullopt;
    }
    entry.state = static_cast<StartupState>(state);
    if (const picojson::value* impact = fields.Find("impact")) {
      if (!fields.Impact(*impact, false, entry.impact.emplace())) return std::nullopt;
    }
  }
  return record;
}

HistoryDocument DecodeHistory(std::string_view bytes, std::size_t keep) {
  HistoryDocument document;
  std::string error;
  std::size_t start = 0;
  while (start < bytes.size()) {
    std::size_t end = bytes.find('\n', start);
    if (end == std::string_view::npos) end = bytes.size();
    std::string_view line = bytes.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.find_first_not_of(" \t") == std::string_view::npos) continue;
    if (std::optional<BootRecord> record = DecodeBootRecord(line, error)) {
      document.records.push_back(std::move(*record));
      // Dropping the oldest as we go bounds the memory by `keep`, whatever the line count.
      if (document.records.size() > keep) document.records.erase(document.records.begin());
    } else {
      ++document.skipped;
    }
  }
  return document;
}

std::string EncodeHistory(const std::vector<BootRecord>& records) {
  std::string text;
  const std::size_t first = records.size() > kHistoryKeep ? records.size() - kHistoryKeep : 0;
  for (std::size_t i = first; i < records.size(); ++i) {
    text += EncodeBootRecord(records[i]);
    text += '\n';
  }
  return text;
}

}  // namespace boottime
