#include "boottime/impact_file.h"

#include <limits>

#include "common/decimal_text.h"
#include "common/json_file.h"
#include "common/text_convert.h"

namespace boottime {
namespace {

constexpr char kProcesses[] = "processes";
constexpr const char* kKeys[] = {"ppid", "pid", "name", "counters"};
constexpr std::size_t kCounterCount = 5;

struct Number {
  std::int64_t minimum;
  std::int64_t maximum;
  const char* invalid;
  const char* range;
};
// A pid is a signed 32-bit long on Windows; counters are written unsigned, so the full
// unsigned range is read back unchanged.
constexpr Number kId{std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max(),
                     "invalid stol argument", "stol argument out of range"};
constexpr Number kCounter{std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::uint32_t>::max(),
                          "invalid stoi argument", "stoi argument out of range"};

// False with the conversion's message in `element` when the text is not a number in range.
template <class T>
bool Read(const picojson::value& value, const Number& number, T& out, ImpactElement& element) {
  std::int64_t parsed = 0;
  switch (ky::ParseDecimal(value.to_str(), ky::DecimalForm::kLeading, number.minimum, number.maximum, parsed)) {
    case ky::DecimalResult::kOk:
      out = static_cast<T>(parsed);
      return true;
    case ky::DecimalResult::kInvalid:
      element.numberError = number.invalid;
      break;
    case ky::DecimalResult::kOutOfRange:
      element.numberError = number.range;
      break;
  }
  element.outcome = ImpactElement::Outcome::kBadNumber;
  return false;
}

}  // namespace

ImpactElement DecodeImpactElement(const picojson::value& value) {
  ImpactElement element;
  if (!value.is<picojson::object>()) {
    element.outcome = ImpactElement::Outcome::kNotAnObject;
    return element;
  }
  for (const char* key : kKeys) {
    if (!value.contains(key)) {
      element.outcome = ImpactElement::Outcome::kMissingKeys;
      return element;
    }
  }
  ProcessImpact& impact = element.impact;
  if (!Read(value.get(kKeys[0]), kId, impact.ppid, element) || !Read(value.get(kKeys[1]), kId, impact.pid, element)) {
    return element;
  }
  impact.name = ky::Utf8ToWide(value.get(kKeys[2]).to_str());
  const picojson::value& counters = value.get(kKeys[3]);
  if (!counters.is<picojson::array>()) {
    element.countersNotArray = true;
  } else if (const picojson::array& c = counters.get<picojson::array>(); c.size() == kCounterCount) {
    std::uint32_t* fields[] = {&impact.kernel, &impact.user, &impact.read, &impact.write, &impact.other};
    for (std::size_t i = 0; i < kCounterCount; ++i) {
      if (!Read(c[i], kCounter, *fields[i], element)) return element;
    }
  }
  return element;
}

ImpactDocument DecodeImpactFile(std::string_view bytes) {
  ImpactDocument document;
  picojson::value root;
  if (!ky::ParseJsonText(bytes.data(), bytes.data() + bytes.size(), root, document.parseError)) {
    document.status = ImpactDocument::Status::kParseError;
    return document;
  }
  if (!root.is<picojson::object>()) {
    document.status = ImpactDocument::Status::kNotAnObject;
    return document;
  }
  const picojson::value& processes = root.get(kProcesses);
  if (!processes.is<picojson::array>()) {
    document.status = ImpactDocument::Status::kNoProcessArray;
    return document;
  }
  for (const picojson::value& element : processes.get<picojson::array>()) {
    document.elements.push_back(DecodeImpactElement(element));
  }
  return document;
}

std::string EncodeImpactFile(const std::map<std::uint64_t, ProcessImpact>& impacts) {
  picojson::array processes;
  for (const auto& [pid, impact] : impacts) {
    picojson::object element;
    element[kKeys[0]] = picojson::value(std::to_string(impact.ppid));
    element[kKeys[1]] = picojson::value(std::to_string(impact.pid));
    element[kKeys[2]] = picojson::value(ky::WideToUtf8(impact.name));
    picojson::array counters;
    for (std::uint32_t value : {impact.kernel, impact.user, impact.read, impact.write, impact.other}) {
      counters.emplace_back(std::to_string(value));
    }
    element[kKeys[3]] = picojson::value(std::move(counters));
    processes.emplace_back(std::move(element));
  }
  picojson::object root;
  root[kProcesses] = picojson::value(std::move(processes));
  return picojson::value(std::move(root)).serialize();
}

}  // namespace boottime
