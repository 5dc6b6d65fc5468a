#pragma once

// The edit given on a vantrix-bench command line (--trim START END, --segment START END SPEED...),
// applied through the timeline's checked edits exactly as the editor applies the user's.

#include "BenchSupport.h"

#include "model/RationalTime.h"
#include "model/SpeedTimeline.h"

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace vantrix::bench {

// "12.5" (exact decimal) or "25/2"; nullopt for anything else.
std::optional<RationalTime> parseTime(std::string_view text);

// The option arities of --trim and --segment, to merge into a subcommand's own.
inline const std::map<std::string_view, int> kTimelineOptions{{"--trim", 2}, {"--segment", 3}};

// A fresh timeline of `duration` with the arguments' trim and segments; a message naming the
// refused argument otherwise.
std::expected<SpeedTimeline, std::string> timelineFromArguments(const Arguments& arguments, RationalTime duration);

}  // namespace vantrix::bench
