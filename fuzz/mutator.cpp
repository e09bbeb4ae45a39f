#include "mutator.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace fuzz {
namespace {

constexpr std::uint64_t kInteresting[] = {0,          1,          2,          0x7F,       0x80,       0xFF,
                                          0x100,      0x7FFF,     0x8000,     0xFFFF,     0x10000,    0x7FFFFFFF,
                                          0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 0x100000000, 0x7FFFFFFFFFFFFFFF,
                                          0x8000000000000000, 0xFFFFFFFFFFFFFFFF, 32,     1024 * 1024, 1024 * 1024 - 32};

const char* const kJsonTokens[] = {
    "null", "true", "false", "0", "-0", "1", "-1", "1e309", "-1e309", "1e-400", "2147483647", "2147483648",
    "-2147483649", "4294967295", "4294967296", "9223372036854775807", "9223372036854775808", "-9223372036854775809",
    "18446744073709551616", "0.5", "-0.99", "1.7976931348623157e308", "\"\"", "\"0\"", "\"-1\"", "\" 12\"",
    "\"12abc\"", "\"4294967296\"", "\"99999999999999999999\"", "\"\\u0000\"", "\"\\ud800\"", "\"\\udc00\\ud800\"",
    "\"\\uffff\"", "\"\xc3\xa9\"", "\"\xff\xfe\"", "\"\\\\\"", "[]", "{}", "[null]", "{\"\":null}", "[[]]", "{\"a\":{}}"};

struct Span {
  std::size_t begin;
  std::size_t end;  // one past the last byte
};

// Every value (and key) of the text as a byte range, found without parsing: good enough to
// move whole values around even in text that is no longer valid JSON.
void ValueSpans(const Bytes& d, std::vector<Span>& spans) {
  spans.clear();
  std::size_t stack[64];
  std::size_t depth = 0;
  std::size_t skipped = 0;  // opening brackets beyond the stack, matched by nothing
  for (std::size_t i = 0; i < d.size(); ++i) {
    const std::uint8_t c = d[i];
    if (c == '"') {
      std::size_t j = i + 1;
      while (j < d.size() && d[j] != '"') j += d[j] == '\\' ? 2 : 1;
      const std::size_t end = std::min(j + 1, d.size());
      spans.push_back({i, end});
      i = end - 1;
    } else if (c == '{' || c == '[') {
      if (depth < 64) stack[depth++] = i;
      else ++skipped;
    } else if (c == '}' || c == ']') {
      if (skipped > 0) --skipped;
      else if (depth > 0) spans.push_back({stack[--depth], i + 1});
    } else if (c == '-' || (c >= '0' && c <= '9') || c == 't' || c == 'f' || c == 'n') {
      std::size_t j = i + 1;
      while (j < d.size() && (std::strchr("+-.eE0123456789abcdefghijklmnopqrstuvwxyz", d[j]) != nullptr && d[j] != 0)) ++j;
      spans.push_back({i, j});
      i = j - 1;
    }
  }
}

}  // namespace

Mutator::Mutator(Rng& rng, std::size_t maxBytes, bool json, std::vector<std::string> dictionary)
    : rng_(rng), maxBytes_(maxBytes), json_(json), dictionary_(std::move(dictionary)) {
  if (json_) {
    for (const char* token : kJsonTokens) dictionary_.emplace_back(token);
  }
}

void Mutator::Insert(Bytes& data, std::size_t at, const std::uint8_t* bytes, std::size_t count) {
  at = std::min(at, data.size());
  count = std::min(count, maxBytes_ > data.size() ? maxBytes_ - data.size() : 0);
  data.insert(data.begin() + static_cast<std::ptrdiff_t>(at), bytes, bytes + count);
}

void Mutator::InsertText(Bytes& data, std::size_t at, const std::string& text) {
  Insert(data, at, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

void Mutator::Mutate(Bytes& data, const std::vector<Bytes>& others) {
  const std::size_t rounds = 1 + rng_.Below(4);
  for (std::size_t r = 0; r < rounds; ++r) {
    if (json_ && !rng_.OneIn(3)) {
      MutateJson(data, others);
    } else {
      MutateBytes(data, others);
    }
  }
  if (data.size() > maxBytes_) data.resize(maxBytes_);
}

void Mutator::MutateBytes(Bytes& data, const std::vector<Bytes>& others) {
  const std::size_t size = data.size();
  switch (rng_.Below(11)) {
    case 0:  // flip one bit
      if (size) data[rng_.Below(size)] ^= static_cast<std::uint8_t>(1u << rng_.Below(8));
      break;
    case 1:  // one random byte
      if (size) data[rng_.Below(size)] = static_cast<std::uint8_t>(rng_.Next());
      break;
    case 2: {  // insert random bytes
      std::uint8_t bytes[16];
      const std::size_t n = 1 + rng_.Below(sizeof bytes);
      for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<std::uint8_t>(rng_.Next());
      Insert(data, rng_.Below(size + 1), bytes, n);
      break;
    }
    case 3: {  // delete a range
      if (!size) break;
      const std::size_t at = rng_.Below(size);
      const std::size_t n = 1 + rng_.Below(std::min<std::size_t>(size - at, rng_.OneIn(4) ? size : 16));
      data.erase(data.begin() + static_cast<std::ptrdiff_t>(at), data.begin() + static_cast<std::ptrdiff_t>(at + n));
      break;
    }
    case 4: {  // an interesting integer, little-endian, of 1, 2, 4 or 8 bytes, over or into the data
      const std::uint64_t value = kInteresting[rng_.Below(std::size(kInteresting))] + (rng_.OneIn(4) ? rng_.Below(3) - 1 : 0);
      const std::size_t width = std::size_t{1} << rng_.Below(4);
      std::uint8_t bytes[8];
      for (std::size_t i = 0; i < width; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
      if (size >= width && !rng_.OneIn(4)) {
        // Aligned positions hit length and count fields far more often than any other place.
        std::size_t at = rng_.Below(size - width + 1);
        if (rng_.OneIn(2)) at &= ~std::size_t{3};
        std::memcpy(data.data() + at, bytes, width);
      } else {
        Insert(data, rng_.Below(size + 1), bytes, width);
      }
      break;
    }
    case 5:  // truncate
      if (size) data.resize(rng_.Below(size));
      break;
    case 6: {  // splice: the head of this input with the tail of another
      if (others.empty()) break;
      const Bytes& other = others[rng_.Below(others.size())];
      const std::size_t keep = rng_.Below(size + 1);
      const std::size_t from = rng_.Below(other.size() + 1);
      data.resize(keep);
      Insert(data, keep, other.data() + from, other.size() - from);
      break;
    }
    case 7: {  // copy a range within the input
      if (!size) break;
      const std::size_t from = rng_.Below(size);
      const std::size_t n = 1 + rng_.Below(std::min<std::size_t>(size - from, 64));
      const Bytes chunk(data.begin() + static_cast<std::ptrdiff_t>(from), data.begin() + static_cast<std::ptrdiff_t>(from + n));
      Insert(data, rng_.Below(size + 1), chunk.data(), chunk.size());
      break;
    }
    case 8:  // a dictionary token
      if (!dictionary_.empty()) InsertText(data, rng_.Below(size + 1), dictionary_[rng_.Below(dictionary_.size())]);
      break;
    case 9:  // add or subtract a little from one byte
      if (size) data[rng_.Below(size)] += static_cast<std::uint8_t>(rng_.Below(35) - 17);
      break;
    default: {  // extend with zeros or 0xFF
      const Bytes fill(1 + rng_.Below(32), rng_.OneIn(2) ? 0 : 0xFF);
      Insert(data, size, fill.data(), fill.size());
      break;
    }
  }
}

void Mutator::MutateJson(Bytes& data, const std::vector<Bytes>& others) {
  static thread_local std::vector<Span> spans;
  static thread_local std::vector<Span> otherSpans;
  ValueSpans(data, spans);
  if (spans.empty()) {
    MutateBytes(data, others);
    return;
  }
  const Span s = spans[rng_.Below(spans.size())];
  auto replace = [&](const std::string& text) {
    data.erase(data.begin() + static_cast<std::ptrdiff_t>(s.begin), data.begin() + static_cast<std::ptrdiff_t>(s.end));
    InsertText(data, s.begin, text);
  };
  const std::string value(data.begin() + static_cast<std::ptrdiff_t>(s.begin), data.begin() + static_cast<std::ptrdiff_t>(s.end));
  switch (rng_.Below(8)) {
    case 0:  // another token in its place
      replace(dictionary_[rng_.Below(dictionary_.size())]);
      break;
    case 1: {  // a value of another input in its place
      if (others.empty()) break;
      const Bytes& other = others[rng_.Below(others.size())];
      ValueSpans(other, otherSpans);
      if (otherSpans.empty()) break;
      const Span o = otherSpans[rng_.Below(otherSpans.size())];
      replace(std::string(other.begin() + static_cast<std::ptrdiff_t>(o.begin), other.begin() + static_cast<std::ptrdiff_t>(o.end)));
      break;
    }
    case 2: {  // remove the value with a neighbouring comma
      std::size_t begin = s.begin;
      std::size_t end = s.end;
      if (end < data.size() && data[end] == ',') ++end;
      else if (begin > 0 && data[begin - 1] == ',') --begin;
      data.erase(data.begin() + static_cast<std::ptrdiff_t>(begin), data.begin() + static_cast<std::ptrdiff_t>(end));
      break;
    }
    case 3:  // repeat the value beside itself
      InsertText(data, s.end, "," + value);
      break;
    case 4: {  // nest the value: usually a little, at times far deeper than any reader expects
      std::size_t levels = 1 + rng_.Below(rng_.OneIn(50) ? 20000 : 8);
      const bool object = rng_.OneIn(2);
      const std::string open = object ? "{\"a\":" : "[";
      levels = std::min(levels, maxBytes_ / (open.size() + 1));
      std::string text;
      text.reserve(levels * (open.size() + 1) + value.size());
      for (std::size_t i = 0; i < levels; ++i) text += open;
      text += value;
      text.append(levels, object ? '}' : ']');
      replace(text);
      break;
    }
    case 5:  // a member after an opening brace
      if (data[s.begin] == '{' && !dictionary_.empty()) {
        InsertText(data, s.begin + 1,
                   "\"" + dictionary_[rng_.Below(dictionary_.size())] + "\":" + dictionary_[rng_.Below(dictionary_.size())] +
                       (s.end - s.begin > 2 ? "," : ""));
      } else {
        replace(value + value);
      }
      break;
    case 6: {  // an escape or odd byte inside a string
      if (data[s.begin] != '"' || s.end - s.begin < 2) break;
      const char* const inserts[] = {"\\u0000", "\\ud800", "\\udfff", "\\\"", "\\", "\xc0\x80", "\xed\xa0\x80", "\x01", "\xff"};
      InsertText(data, s.begin + 1 + rng_.Below(s.end - s.begin - 1), inserts[rng_.Below(std::size(inserts))]);
      break;
    }
    default:  // unbalance the structure: drop or add one bracket
      if (rng_.OneIn(2)) {
        data.erase(data.begin() + static_cast<std::ptrdiff_t>(s.end - 1));
      } else {
        InsertText(data, s.begin, rng_.OneIn(2) ? "[" : "{");
      }
      break;
  }
}

std::size_t JsonDepth(const std::uint8_t* data, std::size_t size) {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool inString = false;
  for (std::size_t i = 0; i < size; ++i) {
    const std::uint8_t c = data[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      deepest = std::max(deepest, ++depth);
    } else if ((c == '}' || c == ']') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

}  // namespace fuzz
