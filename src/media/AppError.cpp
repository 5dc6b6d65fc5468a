#include "media/AppError.h"

namespace vantrix {

std::string_view AppError::description() const {
  switch (m_kind) {
    case Kind::exportFailed:
      return "The export didn't finish. Try exporting again.";
    case Kind::unsupportedFile:
      return "This file's format isn't supported. Vantrix opens .mov, .mp4, and .m4v.";
    case Kind::compositionFailed:
      return "Vantrix couldn't prepare this video. Try opening it again.";
    case Kind::diskFull:
      return "There isn't enough disk space to export. Free up space and try again.";
    case Kind::fileMoved:
      return "Vantrix can't find this file. It may have been moved or deleted. Open it again from its current "
             "location.";
  }
  return {};
}

std::string_view toString(AppError::Kind kind) {
  switch (kind) {
    case AppError::Kind::exportFailed:
      return "exportFailed";
    case AppError::Kind::unsupportedFile:
      return "unsupportedFile";
    case AppError::Kind::compositionFailed:
      return "compositionFailed";
    case AppError::Kind::diskFull:
      return "diskFull";
    case AppError::Kind::fileMoved:
      return "fileMoved";
  }
  return "unknown";
}

}  // namespace vantrix
