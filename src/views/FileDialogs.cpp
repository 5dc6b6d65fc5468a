#include "views/FileDialogs.h"

#include "media/LoadedVideo.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringList>

namespace vantrix {
namespace {

// "*.[mM][pP]4" for "mp4": each letter in both cases, digits as they are.
QString anyCasePattern(std::string_view extension) {
  QString pattern = QStringLiteral("*.");
  for (char c : extension) {
    const QChar letter = QChar::fromLatin1(c);
    if (letter.isLetter())
      pattern += QLatin1Char('[') + letter.toLower() + letter.toUpper() + QLatin1Char(']');
    else
      pattern += letter;
  }
  return pattern;
}

}  // namespace

QString videoNameFilter() {
  QStringList patterns;
  for (std::string_view extension : supportedExtensions()) patterns << anyCasePattern(extension);
  return QStringLiteral("Videos (%1)").arg(patterns.join(QLatin1Char(' ')));
}

std::optional<QString> FileDialogVideoPicker::chooseVideo() {
  if (m_lastFolder.isEmpty()) m_lastFolder = QStandardPaths::writableLocation(QStandardPaths::MoviesLocation);
  if (!QDir(m_lastFolder).exists()) m_lastFolder = QDir::homePath();
  const QString path = QFileDialog::getOpenFileName(m_parent, QStringLiteral("Open Video"), m_lastFolder,
                                                    videoNameFilter(), nullptr, QFileDialog::HideNameFilterDetails);
  if (path.isEmpty()) return std::nullopt;
  m_lastFolder = QFileInfo(path).absolutePath();
  return path;
}

std::optional<QString> FileDialogSaveDialog::chooseDestination(const SaveRequest& request) {
  QFileDialog dialog(m_parent, request.title, request.startFolder, request.nameFilter);
  dialog.setAcceptMode(QFileDialog::AcceptSave);
  dialog.setFileMode(QFileDialog::AnyFile);
  dialog.setDefaultSuffix(request.defaultSuffix);
  dialog.setOption(QFileDialog::ReadOnly, !request.canCreateFolders);
  dialog.selectFile(QDir(request.startFolder).filePath(request.suggestedName));
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
  const QString chosen = dialog.selectedFiles().constFirst();
  if (chosen.isEmpty()) return std::nullopt;
  return QFileInfo(chosen).absoluteFilePath();
}

}  // namespace vantrix
