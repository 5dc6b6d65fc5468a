#include "persistence/SessionRestore.h"

#include "model/Check.h"

#include <cstdint>
#include <limits>
#include <numeric>

namespace vantrix {
namespace {

// The timeline's mappings are exact and never reduce, so the times they produce carry common
// multiples of the timescales they combine, times a speed multiplier, and every time
// that reaches the player becomes a media time with a 32-bit timescale; an overflow on the way is
// a fatal check. The editor's own times share a few timescales (1, the standard 90000, the video's),
// but a session file is outside input: one whose times use the timescales 89999, 90001 and 90010
// passes every timeline check and then stops the process on the first mapping (found by the
// fuzzer). So a stored time is refused, like an impossible range, when its timescale is below 1 or
// would make the least common multiple of all timescales in play, times the largest speed, exceed
// the 32-bit timescale of a media time, or when the source duration at that timescale could not be
// taken to the standard timescale (a long video combined with odd timescales; also found by the
// fuzzer). Honest sessions stay far below (lcm(90000, 44100) = 4.41e6, and at that timescale a
// 2-hour video needs 4.1e17 of the 9.2e18 a 64-bit value holds after the conversion).
constexpr std::int64_t kLargestSpeed = 16;
constexpr std::int64_t kLargestCombinedTimescale = std::numeric_limits<std::int32_t>::max() / kLargestSpeed;

class TimescaleBudget {
 public:
  explicit TimescaleBudget(RationalTime sourceDuration) : m_sourceDuration(sourceDuration) {
    m_open = admit(RationalTime(0, RationalTime::kStandardTimescale)) && admit(sourceDuration);
  }
  // Takes the time's timescale into the common multiple; false when that breaks the budget.
  bool admit(RationalTime t) {
    const std::int64_t ts = t.timescale();
    if (!m_open || ts < 1 || ts > kLargestCombinedTimescale) return false;
    std::int64_t lcm = 0;
    if (__builtin_mul_overflow(m_lcm / std::gcd(m_lcm, ts), ts, &lcm) || lcm > kLargestCombinedTimescale) return false;
    if (!durationConvertsAt(lcm * kLargestSpeed)) return false;
    m_lcm = lcm;
    return true;
  }

 private:
  // Whether the source duration, as a value at `timescale` (rounded up), still fits 64 bits once
  // multiplied by the standard timescale, as a conversion to it does.
  bool durationConvertsAt(std::int64_t timescale) const {
    __extension__ typedef __int128 Wide;
    const Wide value = m_sourceDuration.value();
    const Wide scaled = (value * timescale + m_sourceDuration.timescale() - 1) / m_sourceDuration.timescale();
    return scaled * RationalTime::kStandardTimescale <= std::numeric_limits<std::int64_t>::max();
  }

  RationalTime m_sourceDuration;
  std::int64_t m_lcm = 1;
  bool m_open = true;  // false once the source itself breaks the budget: nothing stored is taken
};

}  // namespace

std::expected<SpeedTimeline, SpeedTimelineError> restoreTimeline(const Session& session, RationalTime sourceDuration) {
  VANTRIX_CHECK(RationalTime::zero() < sourceDuration, "restoring a session needs a positive source duration");
  TimescaleBudget budget(sourceDuration);
  SpeedTimeline timeline(sourceDuration);
  if (!budget.admit(session.trimStart) || !budget.admit(session.trimEnd))
    return std::unexpected(SpeedTimelineError::invalidTrim);
  if (auto trimmed = timeline.setTrim(session.trimStart, session.trimEnd); !trimmed)
    return std::unexpected(trimmed.error());
  for (const SpeedSegment& stored : session.segments) {
    if (!budget.admit(stored.start) || !budget.admit(stored.end))
      return std::unexpected(SpeedTimelineError::invalidRange);
    const auto segment = SpeedSegment::make(stored.start, stored.end, stored.speed);  // stored ids are not reused
    if (!segment) return std::unexpected(SpeedTimelineError::invalidRange);
    if (auto inserted = timeline.insertSegment(*segment); !inserted) return std::unexpected(inserted.error());
  }
  return timeline;
}

RestoredTimeline restoreTimelineOrFresh(const std::optional<Session>& session, RationalTime sourceDuration) {
  if (!session) return {SpeedTimeline(sourceDuration), std::nullopt};
  auto restored = restoreTimeline(*session, sourceDuration);
  if (!restored) return {SpeedTimeline(sourceDuration), restored.error()};
  return {std::move(*restored), std::nullopt};
}

}  // namespace vantrix
