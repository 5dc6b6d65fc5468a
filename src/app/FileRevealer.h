#pragma once

#include <QString>

namespace vantrix {

// Shows a file selected in the desktop's file browser. GUI thread; returns at once and never
// fails visibly (a desktop without a file browser simply shows nothing).
class FileRevealer {
 public:
  virtual ~FileRevealer() = default;
  virtual void reveal(const QString& path) = 0;
};

}  // namespace vantrix
