#pragma once

// The frame-number code drawn on every fixture frame (reading it is readBarcode in
// MediaFixture.h). Internal to the fixture library.

#include <QImage>

#include <cstdint>

namespace vantrix::testing {

// Values 0 .. kBarcodeLimit - 1 can be drawn: about nine hours of frames at 30 fps.
inline constexpr std::int64_t kBarcodeLimit = std::int64_t{1} << 20;

// The code for `value` filling a width x height picture, upright as it is to be displayed.
// Format_Grayscale8 holding only 0 (black) and 255 (white). A value outside 0 .. kBarcodeLimit - 1
// stops the process: a fixture that cannot label its frames is useless.
QImage drawBarcode(std::int64_t value, int width, int height);

}  // namespace vantrix::testing
