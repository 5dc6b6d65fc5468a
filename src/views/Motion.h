#pragma once

#include <QEasingCurve>
#include <QObject>
#include <QVariant>
#include <QVariantAnimation>

namespace vantrix {

// How the views move: every animated change lasts 0.15 s on the ease-in-out curve, and none runs
// when the user asked the desktop to reduce motion. GUI thread.
namespace Motion {

inline constexpr int kDurationMs = 150;

// The cubic Bézier (0.42, 0) (0.58, 1): slow in, slow out.
QEasingCurve easeInOut();
// A spring of response 0.25 s and damping fraction 0.85 played over kSpringDurationMs, for
// controls that pop into place.
QEasingCurve spring();
inline constexpr int kSpringDurationMs = 450;

// The application-wide reduce-motion flag; the views take it at construction.
bool reduceMotion();
void setReduceMotion(bool reduce);
// Reads the flag once at start-up: VANTRIX_REDUCE_MOTION=1 (or 0) decides when set; otherwise the
// desktop's animation setting through the settings portal on the session bus (GNOME's
// enable-animations, KDE's animation speed), waiting at most a quarter of a second. No bus or no
// answer means motion is not reduced.
bool readDesktopSetting();

}  // namespace Motion

// A value that moves to each new target over Motion::kDurationMs on the ease-in-out curve, or
// jumps there when the change is not animated. Holds doubles, QRectF, QPointF or QColor (anything
// QVariantAnimation interpolates). valueChanged() fires on every step; the owner repaints or
// moves a widget from value(). GUI thread.
class Tween final : public QObject {
  Q_OBJECT

 public:
  explicit Tween(QVariant initial, QObject* parent = nullptr);

  const QVariant& value() const { return m_value; }
  const QVariant& target() const { return m_target; }
  double toDouble() const { return m_value.toDouble(); }
  bool isRunning() const { return m_animation.state() == QAbstractAnimation::Running; }

  // Moves towards `target` from wherever the value is now; a target equal to the current one
  // changes nothing (a running animation towards it goes on).
  void setTarget(const QVariant& target, bool animated);
  void setCurve(const QEasingCurve& curve, int durationMs);

 signals:
  void valueChanged();

 private:
  QVariantAnimation m_animation;
  QVariant m_value;
  QVariant m_target;
};

}  // namespace vantrix
