#include "model/RationalTime.h"

#include "model/Check.h"

#include <limits>
#include <utility>

namespace vantrix {
namespace {

std::int64_t checkedMul(std::int64_t a, std::int64_t b, const char* what) {
  std::int64_t r = 0;
  VANTRIX_CHECK(!__builtin_mul_overflow(a, b, &r), what);
  return r;
}

std::int64_t checkedAdd(std::int64_t a, std::int64_t b) {
  std::int64_t r = 0;
  VANTRIX_CHECK(!__builtin_add_overflow(a, b, &r), "time addition overflows 64 bits");
  return r;
}

std::int64_t checkedSub(std::int64_t a, std::int64_t b) {
  std::int64_t r = 0;
  VANTRIX_CHECK(!__builtin_sub_overflow(a, b, &r), "time subtraction overflows 64 bits");
  return r;
}

std::int64_t checkedAbs(std::int64_t x) {
  VANTRIX_CHECK(x != std::numeric_limits<std::int64_t>::min(), "absolute value of INT64_MIN");
  return x < 0 ? -x : x;
}

// Binary (Stein) gcd on absolute values; gcd(x, 0) = x. Runs on every mixed-timescale sum in
// the per-tick time mappings, so it avoids 64-bit division.
std::int64_t gcd(std::int64_t a, std::int64_t b) {
  std::uint64_t x = static_cast<std::uint64_t>(checkedAbs(a));
  std::uint64_t y = static_cast<std::uint64_t>(checkedAbs(b));
  if (x == 0) return static_cast<std::int64_t>(y);
  if (y == 0) return static_cast<std::int64_t>(x);
  const int shift = __builtin_ctzll(x | y);
  x >>= __builtin_ctzll(x);
  do {
    y >>= __builtin_ctzll(y);
    if (x > y) std::swap(x, y);
    y -= x;
  } while (y != 0);
  return static_cast<std::int64_t>(x << shift);
}

// The two operands at their least common timescale, then combined by `op`. The per-tick time
// mappings add mostly times whose timescales divide one another, so that case skips the gcd and
// costs a single division.
template <typename Op>
RationalTime combine(RationalTime a, RationalTime b, Op op) {
  const std::int64_t ta = a.timescale();
  const std::int64_t tb = b.timescale();
  if (ta == tb) {
    VANTRIX_CHECK(ta >= 1, "time arithmetic on a timescale below 1");
    return {op(a.value(), b.value()), ta};
  }
  VANTRIX_CHECK(ta != 0 && tb != 0, "time arithmetic with a zero timescale");
  if (ta > 0 && tb > 0) {
    if (ta > tb && ta % tb == 0)
      return {op(a.value(), checkedMul(b.value(), ta / tb, "rescaled time overflows 64 bits")), ta};
    if (tb > ta && tb % ta == 0)
      return {op(checkedMul(a.value(), tb / ta, "rescaled time overflows 64 bits"), b.value()), tb};
  }
  const std::int64_t g = gcd(ta, tb);
  const std::int64_t lcm = checkedMul(ta / g, tb, "common timescale overflows 64 bits");
  VANTRIX_CHECK(lcm >= 1, "common timescale below 1");
  const std::int64_t sa = checkedMul(a.value(), lcm / ta, "rescaled time overflows 64 bits");
  const std::int64_t sb = checkedMul(b.value(), lcm / tb, "rescaled time overflows 64 bits");
  return {op(sa, sb), lcm};
}

}  // namespace

RationalTime RationalTime::fromMediaTime(MediaTime t) {
  VANTRIX_CHECK(t.valid && t.timescale >= 1, "conversion of a non-numeric media time");
  return {t.value, t.timescale};
}

MediaTime RationalTime::toMediaTime() const {
  constexpr std::int64_t kMax32 = std::numeric_limits<std::int32_t>::max();
  constexpr std::int64_t kMin32 = std::numeric_limits<std::int32_t>::min();
  VANTRIX_CHECK(m_timescale >= kMin32, "timescale below the 32-bit range");
  const RationalTime fitted = m_timescale > kMax32 ? convertedToTimescale(kMax32) : *this;
  return {fitted.m_value, static_cast<std::int32_t>(fitted.m_timescale), true};
}

RationalTime RationalTime::convertedToTimescale(std::int64_t n) const {
  VANTRIX_CHECK(n >= 1, "conversion to a timescale below 1");
  if (n == m_timescale) return *this;
  const std::int64_t p = checkedMul(m_value, n, "timescale conversion overflows 64 bits");
  VANTRIX_CHECK(m_timescale != 0, "timescale conversion from a zero timescale");
  const std::int64_t q = p / m_timescale;
  const std::int64_t r = p - q * m_timescale;
  if (r == 0) return {q, n};
  const std::int64_t half = m_timescale - m_timescale / 2;
  std::int64_t result = q;
  if (p >= 0 && r >= half) result = q + 1;
  else if (p < 0 && -r >= half) result = q - 1;
  return {result, n};
}

RationalTime operator+(RationalTime a, RationalTime b) {
  return combine(a, b, [](std::int64_t x, std::int64_t y) { return checkedAdd(x, y); });
}
RationalTime operator-(RationalTime a, RationalTime b) {
  return combine(a, b, [](std::int64_t x, std::int64_t y) { return checkedSub(x, y); });
}

RationalTime RationalTime::dividedBy(std::int64_t m) const {
  const std::int64_t ts = checkedMul(m_timescale, m, "scaled timescale overflows 64 bits");
  VANTRIX_CHECK(ts >= 1, "scaled timescale below 1");
  return {m_value, ts};
}

RationalTime RationalTime::multipliedBy(std::int64_t m) const {
  VANTRIX_CHECK(m_timescale >= 1, "scaled time has a timescale below 1");
  return {checkedMul(m_value, m, "scaled time overflows 64 bits"), m_timescale};
}

void RationalTime::hashInto(Hasher& h) const {
  std::int64_t g = gcd(m_value, m_timescale);
  if (g <= 1) g = 1;
  h.combine(m_value / g);
  h.combine(m_timescale / g);
}

std::string RationalTime::toString() const { return std::to_string(m_value) + "/" + std::to_string(m_timescale); }

}  // namespace vantrix
