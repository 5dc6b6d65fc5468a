#include "views/Appearance.h"

#include <QApplication>
#include <QFontDatabase>

namespace vantrix::Appearance {
namespace {

// The body size everything else is scaled from (the application font, in points).
constexpr double kBodyPoints = 13;

QFont scaled(QFont font, double points) {
  const double body = font.pointSizeF() > 0 ? font.pointSizeF() : 10;
  font.setPointSizeF(body * points / kBodyPoints);
  return font;
}

}  // namespace

bool isDark(const QPalette& palette) { return palette.color(QPalette::Window).lightnessF() < 0.5; }

QFont bodyFont() { return QApplication::font(); }

QFont title3Font() { return scaled(bodyFont(), 15); }

QFont captionMonospacedFont() {
  QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
  const double body = bodyFont().pointSizeF() > 0 ? bodyFont().pointSizeF() : 10;
  fixed.setPointSizeF(body * 10 / kBodyPoints);
  return fixed;
}

QFont segmentLabelFont() {
  QFont font = scaled(bodyFont(), 11);
  font.setWeight(QFont::DemiBold);
  return font;
}

QFont semiboldBodyFont() {
  QFont font = bodyFont();
  font.setWeight(QFont::DemiBold);
  return font;
}

QColor accent(const QPalette& palette) { return palette.color(QPalette::Highlight); }

QColor secondaryText(const QPalette& palette) {
  QColor text = palette.color(QPalette::WindowText);
  text.setAlphaF(isDark(palette) ? 0.55f : 0.5f);
  return text;
}

QColor thinMaterial(const QPalette& palette) {
  QColor window = palette.color(QPalette::Window);
  window.setAlphaF(0.78f);
  return window;
}

}  // namespace vantrix::Appearance
