#pragma once

#include "media/MediaError.h"

#include <optional>
#include <string_view>

namespace vantrix {

// The one error type that reaches the user: five cases, each with the sentence the alert shows.
// Media operations return it at their boundary; the app model stores at most one and shows its
// description. Two errors are equal when they are the same case: the cause carried by
// exportFailed is for logs and never compared.
//
// A plain value; thread-safe to copy and read.
class AppError {
 public:
  enum class Kind { exportFailed, unsupportedFile, compositionFailed, diskFull, fileMoved };

  static AppError exportFailed(MediaError underlying) { return AppError(Kind::exportFailed, std::move(underlying)); }
  static AppError unsupportedFile() { return AppError(Kind::unsupportedFile); }
  static AppError compositionFailed() { return AppError(Kind::compositionFailed); }
  static AppError diskFull() { return AppError(Kind::diskFull); }
  static AppError fileMoved() { return AppError(Kind::fileMoved); }

  Kind kind() const { return m_kind; }
  // The failure behind exportFailed; null for every other case.
  const MediaError* underlying() const { return m_underlying ? &*m_underlying : nullptr; }

  // The text shown to the user, UTF-8, static storage.
  std::string_view description() const;

  friend bool operator==(const AppError& a, const AppError& b) { return a.m_kind == b.m_kind; }

 private:
  explicit AppError(Kind kind, std::optional<MediaError> underlying = std::nullopt)
      : m_kind(kind), m_underlying(std::move(underlying)) {}

  Kind m_kind;
  std::optional<MediaError> m_underlying;
};

// The case's name ("unsupportedFile") for log lines and test output.
std::string_view toString(AppError::Kind kind);

}  // namespace vantrix
