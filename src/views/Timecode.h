#pragma once

#include "model/RationalTime.h"

#include <QString>

namespace vantrix {

// A time as the strip's playhead shows it: whole seconds rounded half away from zero, negative
// times as 0:00; "m:ss" below an hour (minutes not padded), "h:mm:ss" from an hour on.
// 59.5 s reads "1:00", 3599 s "59:59", 3600 s "1:00:00".
QString timecodeText(RationalTime t);

// The source length against the edited one, "10:00 -> 2:47".
QString editedLengthText(RationalTime sourceLength, RationalTime editedLength);

}  // namespace vantrix
