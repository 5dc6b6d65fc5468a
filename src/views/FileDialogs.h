#pragma once

#include "app/SaveDialog.h"

#include <QString>

#include <optional>

class QWidget;

namespace vantrix {

// The file dialog's filter for the videos the editor opens: "Videos (*.[mM][oO][vV] ...)", one
// pattern per supported extension, matching it in any case (some desktops' dialogs match
// patterns case-sensitively). The patterns are hidden in the dialog; it reads "Videos".
QString videoNameFilter();

// Asks the user for one video to open. GUI thread; modal, returns the chosen absolute path or
// none when the user cancelled or the dialog failed.
class VideoPicker {
 public:
  virtual ~VideoPicker() = default;
  virtual std::optional<QString> chooseVideo() = 0;
};

// The desktop's open dialog over `parent` (not owned), starting in the user's videos folder.
class FileDialogVideoPicker final : public VideoPicker {
 public:
  explicit FileDialogVideoPicker(QWidget* parent) : m_parent(parent) {}
  std::optional<QString> chooseVideo() override;

 private:
  QWidget* m_parent;
  QString m_lastFolder;
};

// The desktop's save dialog over `parent` (not owned) for the export, as the SaveRequest asks:
// MPEG-4 only, folders may be created, the source's folder and the suggested name; it asks
// before replacing a file.
class FileDialogSaveDialog final : public SaveDialog {
 public:
  explicit FileDialogSaveDialog(QWidget* parent) : m_parent(parent) {}
  std::optional<QString> chooseDestination(const SaveRequest& request) override;

 private:
  QWidget* m_parent;
};

}  // namespace vantrix
