#include "model/Uuid.h"

#include <cstring>
#include <random>

namespace vantrix {
namespace {

constexpr std::array<int, 4> kDashesAfterByte{3, 5, 7, 9};  // 8-4-4-4-12

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Uuid Uuid::random() {
  // One engine per thread, seeded from the OS; identifiers need uniqueness, not secrecy.
  thread_local std::mt19937_64 engine{[] {
    std::random_device rd;
    std::seed_seq seq{rd(), rd(), rd(), rd(), rd(), rd(), rd(), rd()};
    return std::mt19937_64(seq);
  }()};
  Bytes b{};
  for (int half = 0; half < 2; ++half) {
    const std::uint64_t word = engine();
    std::memcpy(b.data() + half * 8, &word, 8);
  }
  b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return Uuid(b);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Bytes b{};
  std::size_t pos = 0;
  for (int i = 0; i < 16; ++i) {
    const int hi = hexDigit(text[pos]);
    const int lo = hexDigit(text[pos + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    b[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(hi * 16 + lo);
    pos += 2;
    for (int d : kDashesAfterByte) {
      if (d == i) {
        if (text[pos] != '-') return std::nullopt;
        ++pos;
      }
    }
  }
  return Uuid(b);
}

std::string Uuid::toString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (int i = 0; i < 16; ++i) {
    const std::uint8_t byte = m_bytes[static_cast<std::size_t>(i)];
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 0x0F]);
    for (int d : kDashesAfterByte)
      if (d == i) out.push_back('-');
  }
  return out;
}

void Uuid::hashInto(Hasher& h) const {
  std::uint64_t hi = 0;
  std::uint64_t lo = 0;
  std::memcpy(&hi, m_bytes.data(), 8);
  std::memcpy(&lo, m_bytes.data() + 8, 8);
  h.combine(hi);
  h.combine(lo);
}

}  // namespace vantrix
