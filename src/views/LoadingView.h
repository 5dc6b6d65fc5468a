#pragma once

#include <QTimer>
#include <QWidget>

namespace vantrix {

// The window's content while a video opens: blank at first, then, once the model says opening
// is taking a while, a turning indicator with "Opening video". With reduce motion the indicator
// stands still. GUI thread.
class LoadingView final : public QWidget {
  Q_OBJECT

 public:
  explicit LoadingView(QWidget* parent = nullptr);

  void setIndicatorVisible(bool visible);
  bool isIndicatorVisible() const { return m_visible; }
  void setReduceMotion(bool reduce);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  void updateTimer();

  QTimer m_timer;
  int m_step = 0;
  bool m_visible = false;
  bool m_reduceMotion = false;
};

}  // namespace vantrix
