#pragma once

#include <optional>
#include <string>

namespace vantrix {

// The JSON text of a double as the original platform's JSON encoder writes it, so that session
// files are byte-compatible with it: the shortest digits that read back to the identical double
// (std::to_chars), laid out like Swift's Double.description with a trailing ".0" removed.
//   - exponential form "d.ddde+XX" (at least two exponent digits) when |x| > 2^53 or |x| < 1e-4;
//   - otherwise plain decimal, with no ".0" for integral values:
//     753974400 -> "753974400", 0.5 -> "0.5", 1e15 -> "1000000000000000", 1e16 -> "1e+16",
//     0.0001 -> "0.0001", 0.00001 -> "1e-05".
// One deliberate difference: -0.0 is written "-0.0" (the platform writes "-0", which a reader that
// parses integers exactly, like ours, reads back as +0.0). A file date is never -0.0.
// Non-finite values have no JSON form: nothing.
std::optional<std::string> jsonTextOfDouble(double x);

}  // namespace vantrix
