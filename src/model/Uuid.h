#pragma once

#include "model/Hash.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vantrix {

// A 128-bit identifier. Text form: upper-case 8-4-4-4-12 hexadecimal.
class Uuid {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  constexpr Uuid() = default;  // the nil UUID
  explicit constexpr Uuid(const Bytes& bytes) : m_bytes(bytes) {}

  // A fresh random version-4 UUID. Thread-safe.
  static Uuid random();
  // Accepts the 8-4-4-4-12 form in either case; anything else gives nothing.
  static std::optional<Uuid> parse(std::string_view text);

  std::string toString() const;
  const Bytes& bytes() const { return m_bytes; }

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;
  void hashInto(Hasher& h) const;

 private:
  Bytes m_bytes{};
};

}  // namespace vantrix

template <>
struct std::hash<vantrix::Uuid> {
  std::size_t operator()(const vantrix::Uuid& u) const { return vantrix::hashOf(u); }
};
