#pragma once

// 128-bit integer helpers for the media layer's time conversions, which multiply three or four
// 64-bit quantities (value, timescale, time base) before one division. Overflow and a zero
// divisor are programming errors and stop the process, as in RationalTime.

#include "model/Check.h"

#include <cstdint>
#include <limits>

namespace vantrix::timemath {

__extension__ typedef __int128 Wide;

inline Wide mul(Wide a, Wide b) {
  Wide r = 0;
  VANTRIX_CHECK(!__builtin_mul_overflow(a, b, &r), "media time product overflows 128 bits");
  return r;
}

// n / d rounded to nearest, ties away from zero.
inline Wide roundDiv(Wide n, Wide d) {
  VANTRIX_CHECK(d != 0, "media time division by zero");
  if (d < 0) {
    n = -n;
    d = -d;
  }
  const Wide q = n / d;
  const Wide r = n % d;  // same sign as n
  const Wide twice = (r < 0 ? -r : r) * 2;
  if (twice >= d) return n < 0 ? q - 1 : q + 1;
  return q;
}

// n / d rounded towards negative infinity.
inline Wide floorDiv(Wide n, Wide d) {
  VANTRIX_CHECK(d != 0, "media time division by zero");
  if (d < 0) {
    n = -n;
    d = -d;
  }
  const Wide q = n / d;
  return (n % d != 0 && n < 0) ? q - 1 : q;
}

inline std::int64_t narrow(Wide v) {
  VANTRIX_CHECK(v >= std::numeric_limits<std::int64_t>::min() && v <= std::numeric_limits<std::int64_t>::max(),
                "media time does not fit 64 bits");
  return static_cast<std::int64_t>(v);
}

}  // namespace vantrix::timemath
