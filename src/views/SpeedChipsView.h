#pragma once

#include "model/Speed.h"
#include "views/Motion.h"

#include <QAbstractButton>
#include <QWidget>

#include <array>

namespace vantrix {

class AppModel;

// One chip of the speed row: "2x" ... "16x" in a rounded outline of its speed's colour, filled
// when it is the selected segment's current speed. Checkable: checked is "current", which screen
// readers announce as selected. GUI thread; a child of SpeedChipsView.
class SpeedChip final : public QAbstractButton {
  Q_OBJECT

 public:
  static constexpr double kLineWidth = 1.5;
  static constexpr double kCornerRadius = 8;
  static constexpr int kVerticalPadding = 6;
  static constexpr int kHorizontalPadding = 10;
  static constexpr int kMinimumWidth = 36;

  SpeedChip(Speed speed, QWidget* parent);

  Speed speed() const { return m_speed; }
  // Marks the chip current or not, moving its colours over 0.15 s when animated.
  void setCurrent(bool current, bool animated);
  // The row's opacity, applied on top of the chip's own colours.
  void setRowOpacity(double opacity);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return sizeHint(); }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  Speed m_speed;
  Tween m_current;  // 0 not current, 1 current
  double m_rowOpacity = 1;
};

// The row of speed chips under the strip, one per speed in order. The selected segment's speed
// is marked current; pressing a chip changes the selected segment's speed through the model
// (also when it already has that speed). Without a selection the row is dimmed to 0.4 and its
// chips take no presses. GUI thread; the model outlives the view.
class SpeedChipsView final : public QWidget {
  Q_OBJECT

 public:
  static constexpr double kDimmedOpacity = 0.4;

  explicit SpeedChipsView(AppModel& model, QWidget* parent = nullptr);

  void setReduceMotion(bool reduce) { m_reduceMotion = reduce; }
  SpeedChip* chip(Speed speed) const;
  double rowOpacity() const { return m_opacity.toDouble(); }

 private:
  void sync(bool animated);

  AppModel& m_model;
  bool m_reduceMotion = false;
  std::array<SpeedChip*, 4> m_chips{};
  Tween m_opacity;
};

}  // namespace vantrix
