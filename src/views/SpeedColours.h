#pragma once

#include "model/Speed.h"

#include <QColor>
#include <QPalette>

namespace vantrix {

// The colour of each speed, shared by the segment overlays and the speed chips. The colours warm
// from yellow towards red as the speed rises; each has a light and a dark value (opaque sRGB).
QColor speedColour(Speed speed, bool dark);
// The value for the palette's appearance (Appearance::isDark).
QColor speedColour(Speed speed, const QPalette& palette);

// "2x", "4x", "8x", "16x": a speed as the strip and the chips write it.
QString speedLabel(Speed speed);
// "2 times", ...: what a screen reader says for it.
QString speedAccessibleName(Speed speed);

}  // namespace vantrix
