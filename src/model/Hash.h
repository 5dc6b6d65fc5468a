#pragma once

#include <cstdint>
#include <functional>

namespace vantrix {

// Order-dependent hash accumulator: value types feed their fields in a fixed order so that equal
// values hash equally. Not cryptographic; used for unordered containers only.
class Hasher {
 public:
  void combine(std::uint64_t v) {
    // splitmix64 finaliser on the running state mixed with the new word.
    std::uint64_t z = m_state ^ (v + 0x9E3779B97F4A7C15ULL + (m_state << 6) + (m_state >> 2));
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    m_state = z ^ (z >> 31);
  }
  void combine(std::int64_t v) { combine(static_cast<std::uint64_t>(v)); }
  std::size_t finish() const { return static_cast<std::size_t>(m_state); }

 private:
  std::uint64_t m_state = 0x84222325CBF29CE4ULL;
};

// Hashes any type that offers `void hashInto(Hasher&) const`.
template <typename T>
std::size_t hashOf(const T& value) {
  Hasher h;
  value.hashInto(h);
  return h.finish();
}

}  // namespace vantrix
