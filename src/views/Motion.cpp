#include "views/Motion.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QPointF>
#include <QtMath>

#include <atomic>
#include <cmath>
#include <optional>

namespace vantrix {
namespace Motion {
namespace {

std::atomic<bool> g_reduceMotion{false};

// The spring's displacement towards 1 at time t seconds: underdamped, released from rest at 0.
double springAt(double seconds) {
  constexpr double kResponse = 0.25;
  constexpr double kDamping = 0.85;
  const double omega = 2 * M_PI / kResponse;
  const double damped = omega * std::sqrt(1 - kDamping * kDamping);
  const double decay = std::exp(-kDamping * omega * seconds);
  return 1 - decay * (std::cos(damped * seconds) + kDamping * omega / damped * std::sin(damped * seconds));
}

qreal springCurve(qreal progress) {
  if (progress >= 1) return 1;
  return springAt(progress * kSpringDurationMs / 1000.0);
}

// One key of the desktop's settings through xdg-desktop-portal; none when there is no bus, no
// portal or no such key.
std::optional<QVariant> portalSetting(const QString& group, const QString& key) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return std::nullopt;
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.portal.Desktop"), QStringLiteral("/org/freedesktop/portal/desktop"),
      QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("Read"));
  call << group << key;
  const QDBusMessage reply = bus.call(call, QDBus::Block, 250);
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return std::nullopt;
  // The portal wraps the value in one or two variants depending on its version.
  QVariant value = reply.arguments().constFirst();
  while (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
    value = value.value<QDBusVariant>().variant();
  return value;
}

}  // namespace

QEasingCurve easeInOut() {
  QEasingCurve curve(QEasingCurve::BezierSpline);
  curve.addCubicBezierSegment(QPointF(0.42, 0), QPointF(0.58, 1), QPointF(1, 1));
  return curve;
}

QEasingCurve spring() {
  QEasingCurve curve;
  curve.setCustomType(&springCurve);
  return curve;
}

bool reduceMotion() { return g_reduceMotion.load(); }
void setReduceMotion(bool reduce) { g_reduceMotion.store(reduce); }

bool readDesktopSetting() {
  const QByteArray forced = qgetenv("VANTRIX_REDUCE_MOTION");
  if (forced == "1") return true;
  if (forced == "0") return false;
  if (auto gnome = portalSetting(QStringLiteral("org.gnome.desktop.interface"), QStringLiteral("enable-animations")))
    return !gnome->toBool();
  if (auto kde = portalSetting(QStringLiteral("org.kde.kdeglobals.KDE"), QStringLiteral("AnimationDurationFactor")))
    return kde->toDouble() == 0;
  return false;
}

}  // namespace Motion

Tween::Tween(QVariant initial, QObject* parent) : QObject(parent), m_value(initial), m_target(initial) {
  setCurve(Motion::easeInOut(), Motion::kDurationMs);
  connect(&m_animation, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
    m_value = value;
    emit valueChanged();
  });
}

void Tween::setCurve(const QEasingCurve& curve, int durationMs) {
  m_animation.setEasingCurve(curve);
  m_animation.setDuration(durationMs);
}

void Tween::setTarget(const QVariant& target, bool animated) {
  if (target == m_target && (isRunning() || target == m_value)) return;
  m_target = target;
  m_animation.stop();
  if (!animated || m_value == target) {
    m_value = target;
    emit valueChanged();
    return;
  }
  m_animation.setStartValue(m_value);
  m_animation.setEndValue(target);
  m_animation.start();
}

}  // namespace vantrix
