#pragma once

#include "app/FileRevealer.h"

namespace vantrix {

// Shows an exported file selected in the desktop's file manager through the freedesktop
// FileManager1 D-Bus interface (ShowItems). Where no file manager answers, or there is no session
// bus, the folder holding the file is opened instead. reveal() returns at once; the D-Bus call
// completes in the background. GUI thread.
class DesktopFileRevealer final : public FileRevealer {
 public:
  void reveal(const QString& path) override;
};

}  // namespace vantrix
