#include "persistence/Bookmark.h"

#include <QDir>
#include <QFileInfo>
#include <QStringDecoder>

namespace vantrix {

std::vector<std::uint8_t> makeBookmark(const QString& path) {
  const QByteArray utf8 = QFileInfo(path).absoluteFilePath().toUtf8();
  return {utf8.begin(), utf8.end()};
}

std::optional<QString> resolveBookmark(std::span<const std::uint8_t> bookmark) {
  const QByteArrayView bytes(reinterpret_cast<const char*>(bookmark.data()), static_cast<qsizetype>(bookmark.size()));
  if (bytes.isEmpty() || bytes.contains('\0')) return std::nullopt;
  QStringDecoder fromUtf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
  const QString path = fromUtf8(bytes);
  if (fromUtf8.hasError() || !QDir::isAbsolutePath(path)) return std::nullopt;
  if (!QFileInfo::exists(path)) return std::nullopt;
  return path;
}

}  // namespace vantrix
