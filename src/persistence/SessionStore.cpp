#include "persistence/SessionStore.h"

#include "persistence/Bookmark.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <filesystem>
#include <system_error>

namespace vantrix {
namespace {

constexpr std::int64_t kUnixSecondsAtReferenceDate = 978307200;  // 2001-01-01 00:00:00 UTC

QString resolvedAbsolutePath(const QString& path) {
  const QFileInfo info(path);
  const QString canonical = info.canonicalFilePath();
  return canonical.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : canonical;
}

std::expected<void, QString> createFolder(const QString& folder) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(QFile::encodeName(folder).toStdString()), error);
  if (error)
    return std::unexpected(
        QStringLiteral("Could not create the folder %1: %2").arg(folder, QString::fromStdString(error.message())));
  return {};
}

QString systemMessage(int error) { return QString::fromStdString(std::error_code(error, std::generic_category()).message()); }

// The bytes go straight to the temporary file's descriptor rather than through QSaveFile::write:
// Qt 6.4 commits a truncated file when a buffered write fails part-way (commit() does not check
// the flush that closes the file; seen with EFBIG, and a full disk takes the same path) and then
// reports "Unknown error". Any failure here cancels the save, so the previous file stays.
std::expected<void, QString> writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::unexpected(systemMessage(n < 0 ? errno : EIO));
    done += static_cast<std::size_t>(n);
  }
  return {};
}

std::expected<void, QString> writeAtomically(const QString& target, const std::string& bytes) {
  QSaveFile file(target);
  const auto failure = [&](const QString& reason) {
    return std::unexpected(QStringLiteral("Could not write %1: %2").arg(target, reason));
  };
  if (!file.open(QIODevice::WriteOnly)) return failure(file.errorString());
  if (auto written = writeAll(file.handle(), bytes); !written) {
    file.cancelWriting();
    file.commit();  // discards the temporary file
    return failure(written.error());
  }
  if (!file.commit()) return failure(file.errorString());
  return {};
}

}  // namespace

double referenceDateFromUnixTime(std::int64_t seconds, std::int64_t nanoseconds) {
  // Whole seconds first (exact), then the fraction: one rounding for each, none lost to 1970.
  return static_cast<double>(seconds - kUnixSecondsAtReferenceDate) + static_cast<double>(nanoseconds) / 1e9;
}

QString SessionStore::defaultDirectory() {
  QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
  if (base.isEmpty()) base = QDir::tempPath();
  return base + QStringLiteral("/Vantrix");
}

SessionStore::SessionStore(QString directory, const QLoggingCategory& log)
    : m_directory(std::move(directory)), m_log(&log) {}

QString SessionStore::sessionFileName(const QString& videoPath) {
  const QByteArray digest =
      QCryptographicHash::hash(resolvedAbsolutePath(videoPath).toUtf8(), QCryptographicHash::Sha256);
  return QString::fromLatin1(digest.toHex()) + QStringLiteral(".json");
}

QString SessionStore::sessionFilePath(const QString& videoPath) const {
  return m_directory + QLatin1Char('/') + sessionFileName(videoPath);
}

std::optional<FileFingerprint> SessionStore::fingerprint(const QString& videoPath) {
  struct stat st {};
  if (videoPath.isEmpty() || ::lstat(QFile::encodeName(videoPath).constData(), &st) != 0) return std::nullopt;
  return FileFingerprint{static_cast<std::int64_t>(st.st_size),
                         referenceDateFromUnixTime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec)};
}

std::optional<Session> SessionStore::loadForVideo(const QString& videoPath) const {
  QFile file(sessionFilePath(videoPath));
  if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
  const QByteArray bytes = file.readAll();
  if (file.error() != QFileDevice::NoError) return std::nullopt;

  auto session = decodeSession(std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
  if (!session) {
    qCInfo(*m_log, "Session discarded: corrupt or undecodable sidecar.");
    return std::nullopt;
  }
  if (session->schemaVersion != Session::kCurrentSchemaVersion) {
    qCInfo(*m_log, "Session discarded: unknown schemaVersion %lld.", static_cast<long long>(session->schemaVersion));
    return std::nullopt;
  }
  const auto current = fingerprint(videoPath);
  if (!current || current->size != session->fileSize || !(current->modificationDate == session->modificationDate)) {
    qCInfo(*m_log, "Session discarded: source size/mtime mismatch (file changed).");
    return std::nullopt;
  }
  return std::move(*session);
}

void SessionStore::save(const Session& session) const {
  const std::optional<QString> video = resolveBookmark(session.videoBookmark);
  if (!video) {
    qCInfo(*m_log, "Session save skipped: bookmark did not resolve.");
    return;
  }
  if (const auto written = write(sessionFilePath(*video), session); !written)
    qCInfo(*m_log, "Session save failed: %s", qUtf8Printable(written.error()));
}

std::expected<void, QString> SessionStore::write(const QString& target, const Session& session) const {
  if (auto created = createFolder(m_directory); !created) return created;
  const auto bytes = encodeSession(session);
  if (!bytes) return std::unexpected(QStringLiteral("Could not encode the session: %1")
                                         .arg(QString::fromStdString(bytes.error().description)));
  return writeAtomically(target, *bytes);
}

std::optional<Session> makeSession(std::vector<std::uint8_t> bookmark, const QString& videoPath,
                                   const SpeedTimeline& timeline) {
  const auto fingerprint = SessionStore::fingerprint(videoPath);
  if (!fingerprint) return std::nullopt;
  Session s;
  s.videoBookmark = std::move(bookmark);
  s.fileSize = fingerprint->size;
  s.modificationDate = fingerprint->modificationDate;
  s.trimStart = timeline.trimStart();
  s.trimEnd = timeline.trimEnd();
  s.segments = timeline.segments();
  return s;
}

}  // namespace vantrix
