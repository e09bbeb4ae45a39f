#include "boottime/boot_info_file.h"

#include <limits>

#include "common/decimal_text.h"
#include "common/json_file.h"

namespace boottime {
namespace {

constexpr char kSystemStartKey[] = "systemStartTimestamp";
constexpr char kBootTimeKey[] = "bootTime";

const std::string* StringMember(const picojson::object& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->second.is<std::string>() ? &it->second.get<std::string>() : nullptr;
}

template <class Int>
std::optional<Int> WholeNumber(const std::string* text) {
  std::int64_t value = 0;
  if (text == nullptr ||
      ky::ParseDecimal(*text, ky::DecimalForm::kWhole, std::numeric_limits<Int>::min() + (sizeof(Int) == 8 ? 1 : 0),
                       std::numeric_limits<Int>::max(), value) != ky::DecimalResult::kOk) {
    return std::nullopt;
  }
  return static_cast<Int>(value);
}

}  // namespace

BootInfoStatus DecodeBootInfo(std::string_view bytes, BootInfoRecord& out, std::string& error) {
  out = BootInfoRecord{};
  picojson::value document;
  if (!ky::ParseJsonText(bytes.data(), bytes.data() + bytes.size(), document, error)) return BootInfoStatus::kParseError;
  if (!document.is<picojson::object>()) return BootInfoStatus::kNotAnObject;
  const picojson::object& object = document.get<picojson::object>();
  out.hasBootTime = object.count(kBootTimeKey) != 0;
  out.bootTime = WholeNumber<std::int32_t>(StringMember(object, kBootTimeKey));
  out.systemStart = WholeNumber<std::int64_t>(StringMember(object, kSystemStartKey));
  return BootInfoStatus::kOk;
}

std::string EncodeBootInfo(std::int64_t systemStart, std::int32_t bootTime) {
  picojson::object object;
  object[kSystemStartKey] = picojson::value(std::to_string(systemStart));
  object[kBootTimeKey] = picojson::value(std::to_string(bootTime));
  return picojson::value(object).serialize();
}

BootInfoStatus ReadBootInfoFile(const std::wstring& path, BootInfoRecord& out, std::string& error) {
  out = BootInfoRecord{};
  std::string bytes;
  switch (ky::ReadFileBytes(path, bytes)) {
    case ky::JsonReadResult::kCannotOpen:
      return BootInfoStatus::kCannotOpen;
    case ky::JsonReadResult::kTooLarge:
      return BootInfoStatus::kTooLarge;
    default:
      return DecodeBootInfo(bytes, out, error);
  }
}

}  // namespace boottime
