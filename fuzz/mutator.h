// Seeded mutation of byte strings for the fuzz drivers: generic byte-level mutations for every
// reader and structure-aware ones (values, nesting, keys) for readers of JSON text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

inline Bytes ToBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

// splitmix64: small, fast and the same sequence for the same seed on every machine.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t Next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // Uniform in [0, n); 0 when n is 0.
  std::size_t Below(std::size_t n) { return n == 0 ? 0 : static_cast<std::size_t>(Next() % n); }
  bool OneIn(std::size_t n) { return Below(n) == 0; }

 private:
  std::uint64_t state_;
};

class Mutator {
 public:
  // `dictionary` holds tokens worth inserting whole (keys, literals, magic numbers).
  Mutator(Rng& rng, std::size_t maxBytes, bool json, std::vector<std::string> dictionary);

  // Applies one to four stacked mutations to `data`, splicing from `others` at times.
  void Mutate(Bytes& data, const std::vector<Bytes>& others);

 private:
  void MutateBytes(Bytes& data, const std::vector<Bytes>& others);
  void MutateJson(Bytes& data, const std::vector<Bytes>& others);
  void Insert(Bytes& data, std::size_t at, const std::uint8_t* bytes, std::size_t count);
  void InsertText(Bytes& data, std::size_t at, const std::string& text);

  Rng& rng_;
  std::size_t maxBytes_;
  bool json_;
  std::vector<std::string> dictionary_;
};

// Deepest bracket nesting of JSON text, strings skipped; used to leave out inputs deeper than
// a reader is yet known to survive.
std::size_t JsonDepth(const std::uint8_t* data, std::size_t size);

}  // namespace fuzz
