#pragma once

#include "model/Hash.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

namespace vantrix {

// A media framework time: 64-bit value over a 32-bit timescale, with a validity flag for the
// "no time" case (unknown duration, empty stream). This is the form FFmpeg-facing code exchanges.
struct MediaTime {
  std::int64_t value = 0;
  std::int32_t timescale = 1;
  bool valid = false;

  friend bool operator==(const MediaTime&, const MediaTime&) = default;
};

// Exact time: value / timescale seconds. Never reduced (1/2 and 2/4 stay distinct representations
// of the same instant); equality, hashing and ordering are by the represented instant.
// The only rounding is convertedToTimescale (half away from zero).
//
// Overflow of any intermediate, a zero divisor and a result timescale below 1 stop the process
// (VANTRIX_CHECK); nothing wraps or saturates. Callers keep values in range: the editor's own
// times (90000-based, hours long) are many orders of magnitude from the limits.
//
// Thread-safe as a plain value.
class RationalTime {
 public:
  static constexpr std::int64_t kStandardTimescale = 90000;

  constexpr RationalTime() = default;
  constexpr RationalTime(std::int64_t value, std::int64_t timescale) : m_value(value), m_timescale(timescale) {}

  // 0/1, the one representation of time zero that the editing model creates.
  static constexpr RationalTime zero() { return {0, 1}; }
  // Whole seconds over timescale 1; handy for tests and fixed constants.
  static constexpr RationalTime seconds(std::int64_t s) { return {s, 1}; }

  constexpr std::int64_t value() const { return m_value; }
  constexpr std::int64_t timescale() const { return m_timescale; }

  // Exact conversion from a media time. Precondition (fatal): valid and timescale >= 1.
  static RationalTime fromMediaTime(MediaTime t);
  // The media time of this instant; a timescale above INT32_MAX is first converted to INT32_MAX
  // (rounded), one below INT32_MIN is fatal.
  MediaTime toMediaTime() const;

  // The same instant at timescale n, rounded half away from zero. n < 1 is fatal.
  RationalTime convertedToTimescale(std::int64_t n) const;

  // Seconds as a double, for display and pixel arithmetic only; never for edit decisions.
  double seconds() const { return static_cast<double>(m_value) / static_cast<double>(m_timescale); }

  // Exact: cross products in 128-bit arithmetic. Inline because the time mappings compare on every
  // segment of every player tick.
  friend bool operator==(RationalTime a, RationalTime b) {
    return Wide{a.m_value} * b.m_timescale == Wide{b.m_value} * a.m_timescale;
  }
  friend std::strong_ordering operator<=>(RationalTime a, RationalTime b) {
    return Wide{a.m_value} * b.m_timescale <=> Wide{b.m_value} * a.m_timescale;
  }
  friend RationalTime operator+(RationalTime a, RationalTime b);
  friend RationalTime operator-(RationalTime a, RationalTime b);

  // Divides by a speed multiplier: (value, timescale * m). Multiplies: (value * m, timescale).
  RationalTime dividedBy(std::int64_t m) const;
  RationalTime multipliedBy(std::int64_t m) const;

  // Feeds the reduced value and timescale, so equal instants hash equally.
  void hashInto(Hasher& h) const;

  // "value/timescale", e.g. "45000/90000".
  std::string toString() const;

 private:
  __extension__ typedef __int128 Wide;

  std::int64_t m_value = 0;
  std::int64_t m_timescale = 1;
};

}  // namespace vantrix

template <>
struct std::hash<vantrix::RationalTime> {
  std::size_t operator()(vantrix::RationalTime t) const { return vantrix::hashOf(t); }
};
