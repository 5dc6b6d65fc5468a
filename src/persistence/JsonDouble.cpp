#include "persistence/JsonDouble.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace vantrix {
namespace {

constexpr double kTwoTo53 = 9007199254740992.0;

// Shortest round-trip digits and the decimal exponent of the first one: x = 0.d1d2... × 10^(exponent),
// the decomposition Swift's formatter works on.
struct Decomposed {
  bool negative = false;
  std::string digits;
  int exponent = 0;
};

Decomposed decompose(double x) {
  char buffer[64];
  const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::scientific);
  const std::string_view text(buffer, static_cast<std::size_t>(end - buffer));  // "-1.2345e+08"
  Decomposed d;
  std::size_t i = 0;
  if (text[i] == '-') {
    d.negative = true;
    ++i;
  }
  const std::size_t e = text.find('e');
  for (; i < e; ++i)
    if (text[i] != '.') d.digits += text[i];
  int scientific = 0;
  const char* expBegin = text.data() + e + 1;
  if (*expBegin == '+') ++expBegin;
  std::from_chars(expBegin, text.data() + text.size(), scientific);
  d.exponent = scientific + 1;
  return d;
}

std::string exponential(const Decomposed& d) {
  std::string out = d.negative ? "-" : "";
  out += d.digits[0];
  if (d.digits.size() > 1) {
    out += '.';
    out.append(d.digits, 1);
  }
  const int e = d.exponent - 1;
  out += e < 0 ? "e-" : "e+";
  const std::string magnitude = std::to_string(std::abs(e));
  if (magnitude.size() < 2) out += '0';
  return out + magnitude;
}

std::string decimal(const Decomposed& d) {
  std::string out = d.negative ? "-" : "";
  const int digitCount = static_cast<int>(d.digits.size());
  if (d.exponent <= 0) {  // 0.000ddd
    out += "0.";
    out.append(static_cast<std::size_t>(-d.exponent), '0');
    out += d.digits;
  } else if (d.exponent < digitCount) {  // ddd.ddd
    out.append(d.digits, 0, static_cast<std::size_t>(d.exponent));
    out += '.';
    out.append(d.digits, static_cast<std::size_t>(d.exponent));
  } else {  // ddd000, integral: Swift's "ddd000.0" with the ".0" dropped by the encoder
    out += d.digits;
    out.append(static_cast<std::size_t>(d.exponent - digitCount), '0');
  }
  return out;
}

}  // namespace

std::optional<std::string> jsonTextOfDouble(double x) {
  if (!std::isfinite(x)) return std::nullopt;
  if (x == 0.0) return std::signbit(x) ? "-0.0" : "0";
  const Decomposed d = decompose(x);
  if (d.exponent < -3 || std::fabs(x) > kTwoTo53) return exponential(d);
  return decimal(d);
}

}  // namespace vantrix
