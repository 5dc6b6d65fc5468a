#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>

namespace vantrix {

// The window's look, derived from the application palette and font so that the views follow the
// desktop: light or dark, the font roles the views name, and the few system colours they use.
// GUI thread (reads QApplication's font).
namespace Appearance {

// Dark when the palette's window colour is closer to black than to white (HSL lightness below
// one half); every colour with a light and a dark value is chosen by this.
bool isDark(const QPalette& palette);

// Font roles, scaled from the application font as the body size: title 3 is 15/13 of it,
// caption 10/13, the segment label 11/13 and semibold.
QFont bodyFont();
QFont title3Font();
// Caption size with digits of equal width (a fixed-pitch face), for timecodes that change
// while they are read.
QFont captionMonospacedFont();
QFont segmentLabelFont();
QFont semiboldBodyFont();

// The accent colour of the desktop (the palette's highlight).
QColor accent(const QPalette& palette);
// Text of lesser importance: the primary text colour at half opacity (0.55 in dark).
QColor secondaryText(const QPalette& palette);
// A translucent backing for small labels over pictures, of the window's own colour.
QColor thinMaterial(const QPalette& palette);

}  // namespace Appearance
}  // namespace vantrix
