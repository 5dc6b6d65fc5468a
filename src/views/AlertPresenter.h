#pragma once

#include "media/AppError.h"

#include <QPointer>
#include <QString>

#include <functional>

class QMessageBox;
class QWidget;

namespace vantrix {

// The title of the alert that shows an error: "Can't open this video", "Can't prepare this
// video", "Not enough disk space", "Can't find this file" or "Export didn't finish".
QString alertTitle(AppError::Kind kind);

// Where the window's alerts appear. show() returns at once; the alert stays up until the user
// dismisses it, which calls onDismissed once. GUI thread.
class AlertPresenter {
 public:
  virtual ~AlertPresenter() = default;
  // Shows an alert, replacing one that is up (whose callback then never runs).
  virtual void show(const QString& title, const QString& message, std::function<void()> onDismissed) = 0;
  // Takes down the alert that is up, if any, without calling its callback.
  virtual void close() = 0;
};

// Alerts as window-modal message boxes over `parent` (not owned; it outlives the presenter).
class MessageBoxAlertPresenter final : public AlertPresenter {
 public:
  explicit MessageBoxAlertPresenter(QWidget* parent) : m_parent(parent) {}
  ~MessageBoxAlertPresenter() override;

  void show(const QString& title, const QString& message, std::function<void()> onDismissed) override;
  void close() override;

 private:
  QWidget* m_parent;
  QPointer<QMessageBox> m_box;
};

}  // namespace vantrix
