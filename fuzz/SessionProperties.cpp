#include "SessionProperties.h"

#include "persistence/Session.h"
#include "persistence/SessionRestore.h"

#include <bit>
#include <cstdint>
#include <set>
#include <vector>

namespace vantrix::fuzz {
namespace {

bool sameRepresentation(RationalTime a, RationalTime b) {
  return a.value() == b.value() && a.timescale() == b.timescale();
}

bool identical(const Session& a, const Session& b) {
  if (a.schemaVersion != b.schemaVersion || a.videoBookmark != b.videoBookmark || a.fileSize != b.fileSize ||
      std::bit_cast<std::uint64_t>(a.modificationDate) != std::bit_cast<std::uint64_t>(b.modificationDate) ||
      !sameRepresentation(a.trimStart, b.trimStart) || !sameRepresentation(a.trimEnd, b.trimEnd) ||
      a.segments.size() != b.segments.size())
    return false;
  for (std::size_t i = 0; i < a.segments.size(); ++i) {
    const SpeedSegment& x = a.segments[i];
    const SpeedSegment& y = b.segments[i];
    if (x.id != y.id || !sameRepresentation(x.start, y.start) || !sameRepresentation(x.end, y.end) || x.speed != y.speed)
      return false;
  }
  return true;
}

bool everySlashEscaped(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i)
    if (text[i] == '/' && (i == 0 || text[i - 1] != '\\')) return false;
  return true;
}

std::optional<std::string> checkTimeline(const SpeedTimeline& t, const Session& stored, RationalTime duration) {
  if (!(RationalTime::zero() <= t.trimStart() && t.trimStart() < t.trimEnd() && t.trimEnd() <= duration))
    return "restored trim breaks 0 <= trimStart < trimEnd <= duration";
  if (t.segments().size() != stored.segments.size()) return "restored timeline lost or gained segments";
  std::set<Uuid> ids;
  for (const SpeedSegment& s : stored.segments) ids.insert(s.id);
  for (std::size_t i = 0; i < t.segments().size(); ++i) {
    const SpeedSegment& s = t.segments()[i];
    if (!(s.start < s.end)) return "restored segment with start >= end";
    if (!(t.trimStart() <= s.start && s.end <= t.trimEnd())) return "restored segment outside the trim";
    if (i > 0 && !(t.segments()[i - 1].end <= s.start)) return "restored segments unsorted or overlapping";
    if (!ids.insert(s.id).second) return "restored segment reuses a stored or repeated id";
  }
  // What the player does on every tick must not hit a fatal arithmetic check: map source bounds to
  // output time and hand them over as media times; take output times back at the standard
  // timescale and map them to source time.
  std::vector<RationalTime> sourceTimes{t.trimStart(), t.trimEnd()};
  for (const SpeedSegment& s : t.segments()) {
    sourceTimes.push_back(s.start);
    sourceTimes.push_back(s.end);
  }
  for (const RationalTime source : sourceTimes) {
    const RationalTime output = t.outputTimeForSource(source);
    (void)output.toMediaTime();
    const RationalTime tick = output.convertedToTimescale(RationalTime::kStandardTimescale);
    (void)t.sourceTimeForOutput(tick).convertedToTimescale(RationalTime::kStandardTimescale);
    (void)t.sourceTimeForOutput(output).toMediaTime();
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> checkSessionProperties(std::string_view bytes) {
  const auto decoded = decodeSession(bytes);
  if (!decoded) return std::nullopt;

  const auto encoded = encodeSession(*decoded);
  if (!encoded) return "a decoded session does not encode: " + encoded.error().description;
  if (!everySlashEscaped(*encoded)) return "an unescaped slash in " + *encoded;
  const auto again = decodeSession(*encoded);
  if (!again) return "the encoding of a decoded session does not decode: " + again.error().message;
  if (!identical(*decoded, *again)) return "decode(encode(s)) differs from s: " + *encoded;
  const auto reencoded = encodeSession(*again);
  if (!reencoded || *reencoded != *encoded) return "encoding is not stable: " + *encoded;

  for (const RationalTime duration : {RationalTime(900000, 90000), decoded->trimEnd}) {
    if (!(duration.timescale() >= 1 && RationalTime::zero() < duration)) continue;
    const auto restored = restoreTimeline(*decoded, duration);
    if (!restored) continue;
    if (auto broken = checkTimeline(*restored, *decoded, duration)) return *broken + " in " + *encoded;
  }
  return std::nullopt;
}

}  // namespace vantrix::fuzz
