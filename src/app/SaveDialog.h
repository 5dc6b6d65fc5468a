#pragma once

#include <QString>

#include <optional>

namespace vantrix {

// What the export asks of a save dialog: MPEG-4 files only, folders may be created, opening in
// the folder that holds the source and proposing the exporter's suggested name.
struct SaveRequest {
  QString title = QStringLiteral("Export");
  QString nameFilter = QStringLiteral("MPEG-4 Movie (*.mp4)");
  QString defaultSuffix = QStringLiteral("mp4");
  bool canCreateFolders = true;
  QString startFolder;    // absolute
  QString suggestedName;  // a file name, not a path

  friend bool operator==(const SaveRequest&, const SaveRequest&) = default;
};

// The window's modal save dialog. GUI thread; blocks until the user answers. Returns the chosen
// absolute path, or none when the user cancelled.
class SaveDialog {
 public:
  virtual ~SaveDialog() = default;
  virtual std::optional<QString> chooseDestination(const SaveRequest& request) = 0;
};

}  // namespace vantrix
