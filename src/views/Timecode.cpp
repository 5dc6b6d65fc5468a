#include "views/Timecode.h"

#include <cmath>
#include <cstdint>

namespace vantrix {

QString timecodeText(RationalTime t) {
  const double seconds = std::round(static_cast<double>(t.value()) / static_cast<double>(t.timescale()));
  const auto s = static_cast<std::int64_t>(std::max(seconds, 0.0));
  if (s >= 3600)
    return QString::asprintf("%lld:%02lld:%02lld", static_cast<long long>(s / 3600),
                             static_cast<long long>((s % 3600) / 60), static_cast<long long>(s % 60));
  return QString::asprintf("%lld:%02lld", static_cast<long long>((s % 3600) / 60), static_cast<long long>(s % 60));
}

QString editedLengthText(RationalTime sourceLength, RationalTime editedLength) {
  return timecodeText(sourceLength) + QStringLiteral(" -> ") + timecodeText(editedLength);
}

}  // namespace vantrix
