#pragma once

// Internal to the fixture library: drawing the frame code, and writing one recipe uncached.

#include "MediaFixture.h"

namespace vantrix::testing {

// Values 0 .. kBarcodeLimit - 1 can be drawn: about nine hours of frames at 30 fps.
inline constexpr std::int64_t kBarcodeLimit = std::int64_t{1} << 20;

// The code for `value` filling a Format_Grayscale8 picture of only 0 and 255, upright as displayed; throws
// std::out_of_range for a value or size it cannot draw.
QImage drawBarcode(std::int64_t value, int width, int height);

// Writes the undamaged file of `recipe` to `path`; throws std::runtime_error naming the refusal or the failing step.
void writeFixture(const FixtureSpec& recipe, const std::filesystem::path& path);

}  // namespace vantrix::testing
