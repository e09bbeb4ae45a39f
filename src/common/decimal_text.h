// Decimal numbers kept as text in the module's JSON files, which a user can edit: every
// reader converts them here, bounded, without exceptions.
#pragma once

#include <cstdint>
#include <string_view>

namespace ky {

enum class DecimalForm {
  kWhole,    // the whole text: an optional '-' and at least one digit, nothing else
  kLeading,  // as the standard stol reads: spaces, an optional sign, digits, the rest ignored
};

enum class DecimalResult { kOk, kInvalid, kOutOfRange };

// Converts `text` in `form`: kOk with `out` in [minimum, maximum], otherwise kInvalid (no
// digits where they must be) or kOutOfRange, with `out` untouched.
[[nodiscard]] DecimalResult ParseDecimal(std::string_view text, DecimalForm form, std::int64_t minimum,
                                         std::int64_t maximum, std::int64_t& out);

}  // namespace ky
