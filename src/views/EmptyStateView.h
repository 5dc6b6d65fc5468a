#pragma once

#include <QAbstractButton>

namespace vantrix {

// What the window shows while no video is open: the whole area is one plain button inviting the
// user to drop a video or click to choose one. Screen readers hear "Choose a video to open", not
// the two lines. A click emits clicked() once (the window shows its file dialog); while a file is
// dragged over the window the area is highlighted. GUI thread.
class EmptyStateView final : public QAbstractButton {
  Q_OBJECT

 public:
  explicit EmptyStateView(QWidget* parent = nullptr);

  void setDropHighlighted(bool highlighted);
  bool isDropHighlighted() const { return m_highlighted; }

  QSize sizeHint() const override { return {480, 320}; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  bool m_highlighted = false;
};

}  // namespace vantrix
