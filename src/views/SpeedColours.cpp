#include "views/SpeedColours.h"

#include "views/Appearance.h"

#include <QString>

namespace vantrix {

QColor speedColour(Speed speed, bool dark) {
  switch (speed) {
    case Speed::x2:
      return dark ? QColor(255, 214, 10) : QColor(255, 200, 61);
    case Speed::x4:
      return dark ? QColor(255, 179, 64) : QColor(255, 159, 10);
    case Speed::x8:
      return dark ? QColor(255, 138, 61) : QColor(247, 107, 21);
    case Speed::x16:
      return dark ? QColor(247, 107, 21) : QColor(217, 78, 31);
  }
  return {};
}

QColor speedColour(Speed speed, const QPalette& palette) { return speedColour(speed, Appearance::isDark(palette)); }

QString speedLabel(Speed speed) { return QStringLiteral("%1x").arg(multiplier(speed)); }

QString speedAccessibleName(Speed speed) { return QStringLiteral("%1 times").arg(multiplier(speed)); }

}  // namespace vantrix
