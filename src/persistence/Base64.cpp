#include "persistence/Base64.h"

#include <array>

namespace vantrix {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Sextet of each alphabet character; -1 for every other byte (including "=").
constexpr std::array<int, 256> kSextets = [] {
  std::array<int, 256> t{};
  t.fill(-1);
  for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kAlphabet[i])] = i;
  return t;
}();

}  // namespace

std::string encodeBase64(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t w = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) out += kAlphabet[(w >> shift) & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t w = std::uint32_t{bytes[i]} << 16;
    if (rest == 2) w |= std::uint32_t{bytes[i + 1]} << 8;
    out += kAlphabet[(w >> 18) & 63];
    out += kAlphabet[(w >> 12) & 63];
    out += rest == 2 ? kAlphabet[(w >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;

  std::vector<std::uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const std::size_t dataChars = last ? 4 - padding : 4;
    std::uint32_t w = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      int v = 0;
      if (k < dataChars) {
        v = kSextets[static_cast<unsigned char>(text[i + k])];
        if (v < 0) return std::nullopt;  // outside the alphabet, or "=" before the end
      }
      w = (w << 6) | static_cast<std::uint32_t>(v);
    }
    const std::size_t dataBytes = dataChars - 1;  // 4 chars → 3 bytes, 3 → 2, 2 → 1
    // Bits that no output byte takes must be zero, or two texts would name the same bytes.
    if (dataBytes < 3 && (w & ((1u << (8 * (3 - dataBytes))) - 1)) != 0) return std::nullopt;
    for (std::size_t b = 0; b < dataBytes; ++b) out.push_back(static_cast<std::uint8_t>(w >> (16 - 8 * b)));
  }
  return out;
}

}  // namespace vantrix
