#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vantrix {

// How many times faster a region plays. The raw value is also the multiplier.
enum class Speed : std::int8_t { x2 = 2, x4 = 4, x8 = 8, x16 = 16 };

// Every speed in the order the editor offers them.
inline constexpr std::array<Speed, 4> kAllSpeeds{Speed::x2, Speed::x4, Speed::x8, Speed::x16};

constexpr std::int64_t multiplier(Speed s) { return static_cast<std::int64_t>(s); }
constexpr std::int64_t rawValue(Speed s) { return static_cast<std::int64_t>(s); }

// Exactly 2, 4, 8 and 16 name a speed; every other integer names none.
std::optional<Speed> speedFromRawValue(std::int64_t raw);

// "x2", "x4", ... for log lines and labels.
std::string_view speedName(Speed s);

}  // namespace vantrix
