#include "common/decimal_text.h"

#include <cctype>
#include <limits>

namespace ky {

DecimalResult ParseDecimal(std::string_view text, DecimalForm form, std::int64_t minimum, std::int64_t maximum,
                           std::int64_t& out) {
  std::size_t i = 0;
  if (form == DecimalForm::kLeading) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || (form == DecimalForm::kLeading && text[i] == '+'))) {
    negative = text[i++] == '-';
  }
  if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) return DecimalResult::kInvalid;
  std::int64_t value = 0;
  bool overflow = false;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    const int digit = text[i] - '0';
    if (value > (std::numeric_limits<std::int64_t>::max() - digit) / 10) overflow = true;
    if (!overflow) value = value * 10 + digit;
  }
  if (form == DecimalForm::kWhole && i != text.size()) return DecimalResult::kInvalid;
  if (negative) value = -value;
  if (overflow || value < minimum || value > maximum) return DecimalResult::kOutOfRange;
  out = value;
  return DecimalResult::kOk;
}

}  // namespace ky
