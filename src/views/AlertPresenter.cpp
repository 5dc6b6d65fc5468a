#include "views/AlertPresenter.h"

#include <QMessageBox>

namespace vantrix {

QString alertTitle(AppError::Kind kind) {
  switch (kind) {
    case AppError::Kind::unsupportedFile:
      return QStringLiteral("Can't open this video");
    case AppError::Kind::compositionFailed:
      return QStringLiteral("Can't prepare this video");
    case AppError::Kind::diskFull:
      return QStringLiteral("Not enough disk space");
    case AppError::Kind::fileMoved:
      return QStringLiteral("Can't find this file");
    case AppError::Kind::exportFailed:
      return QStringLiteral("Export didn't finish");
  }
  return {};
}

MessageBoxAlertPresenter::~MessageBoxAlertPresenter() { close(); }

void MessageBoxAlertPresenter::show(const QString& title, const QString& message, std::function<void()> onDismissed) {
  close();
  auto* box = new QMessageBox(QMessageBox::Warning, title, title, QMessageBox::Ok, m_parent);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setTextFormat(Qt::PlainText);
  box->setInformativeText(message);
  box->setWindowModality(Qt::WindowModal);
  // Room for a sentence per line rather than a word or two.
  box->setStyleSheet(QStringLiteral("QLabel#qt_msgbox_label, QLabel#qt_msgbox_informativelabel { min-width: 300px; }"));
  m_box = box;
  QObject::connect(box, &QMessageBox::finished, box, [this, box, onDismissed = std::move(onDismissed)] {
    // A box taken down by close() is no longer ours and calls nothing.
    if (m_box != box) return;
    m_box.clear();
    if (onDismissed) onDismissed();
  });
  box->open();
}

void MessageBoxAlertPresenter::close() {
  if (QMessageBox* box = m_box.data()) {
    m_box.clear();
    box->close();
  }
}

}  // namespace vantrix
