#include "TimelineArguments.h"

#include <charconv>

namespace vantrix::bench {
namespace {

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t v = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (error != std::errc{} || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return v;
}

}  // namespace

std::optional<RationalTime> parseTime(std::string_view text) {
  if (const auto slash = text.find('/'); slash != std::string_view::npos) {
    const auto value = parseInteger(text.substr(0, slash));
    const auto timescale = parseInteger(text.substr(slash + 1));
    if (!value || !timescale || *timescale < 1) return std::nullopt;
    return RationalTime(*value, *timescale);
  }
  const auto dot = text.find('.');
  if (dot == std::string_view::npos) {
    const auto whole = parseInteger(text);
    return whole ? std::optional(RationalTime::seconds(*whole)) : std::nullopt;
  }
  const std::string_view fraction = text.substr(dot + 1);
  if (fraction.empty() || fraction.size() > 9 || fraction.front() == '-' || fraction.front() == '+') return std::nullopt;
  std::int64_t timescale = 1;
  for (std::size_t i = 0; i < fraction.size(); ++i) timescale *= 10;
  const auto digits = parseInteger(std::string(text.substr(0, dot)) + std::string(fraction));
  if (!digits) return std::nullopt;
  return RationalTime(*digits, timescale);
}

std::expected<SpeedTimeline, std::string> timelineFromArguments(const Arguments& arguments, RationalTime duration) {
  SpeedTimeline timeline(duration);
  for (const auto& trim : arguments.all("--trim")) {
    const auto start = parseTime(trim[0]);
    const auto end = parseTime(trim[1]);
    if (!start || !end) return std::unexpected("--trim takes two times");
    if (auto ok = timeline.setTrim(*start, *end); !ok)
      return std::unexpected("--trim refused: " + std::string(toString(ok.error())));
  }
  for (const auto& segment : arguments.all("--segment")) {
    const auto start = parseTime(segment[0]);
    const auto end = parseTime(segment[1]);
    const auto factor = parseTime(segment[2]);
    const auto speed = factor && factor->timescale() == 1 ? speedFromRawValue(factor->value()) : std::nullopt;
    if (!start || !end || !speed) return std::unexpected("--segment takes two times and a speed of 2, 4, 8 or 16");
    if (auto ok = timeline.addSegment(*start, *end, *speed); !ok)
      return std::unexpected("--segment refused: " + std::string(toString(ok.error())));
  }
  return timeline;
}

}  // namespace vantrix::bench
