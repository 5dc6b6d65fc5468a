#pragma once

// One session file per video, in a private folder, named after the SHA-256 of the
// video's symlink-resolved path, and trusted on reading only while the video's size and
// modification date are those stored. Forgiving by design: every problem on reading makes the
// session count as absent, every problem on writing is logged and dropped; nothing reaches the
// user. All log lines are info level in the store's category (by default "vantrix.persistence"):
//   "Session discarded: corrupt or undecodable sidecar."
//   "Session discarded: unknown schemaVersion 2."
//   "Session discarded: source size/mtime mismatch (file changed)."
//   "Session save skipped: bookmark did not resolve."
//   "Session save failed: <description>"
// Files are only ever created or replaced (atomically), never deleted.
//
// A small value; call from the GUI thread (reads and writes are synchronous and small).

#include "model/SpeedTimeline.h"
#include "persistence/PersistenceLog.h"
#include "persistence/Session.h"

#include <QString>

#include <cstdint>
#include <expected>
#include <optional>
#include <vector>

namespace vantrix {

// What identifies the version of a video file that a session was made for.
struct FileFingerprint {
  std::int64_t size = 0;
  double modificationDate = 0;  // seconds since 2001-01-01 00:00:00 UTC, with the file's nanoseconds

  friend bool operator==(const FileFingerprint&, const FileFingerprint&) = default;
};

// Seconds since 2001-01-01 00:00:00 UTC of a POSIX time (seconds and nanoseconds since 1970).
double referenceDateFromUnixTime(std::int64_t seconds, std::int64_t nanoseconds);

class SessionStore {
 public:
  // $XDG_DATA_HOME/Vantrix (QStandardPaths::GenericDataLocation), or <temp>/Vantrix without one.
  static QString defaultDirectory();

  explicit SessionStore(QString directory = defaultDirectory(), const QLoggingCategory& log = lcPersistence());

  const QString& directory() const { return m_directory; }

  // 64 lower-case hexadecimal digits of the SHA-256 of the UTF-8 of the video's absolute path with
  // symbolic links resolved (the cleaned absolute path when it does not exist), plus ".json".
  static QString sessionFileName(const QString& videoPath);
  QString sessionFilePath(const QString& videoPath) const;

  // Size and modification date of the item at the path itself (lstat: a final symbolic link is
  // not followed). None when its attributes cannot be read.
  static std::optional<FileFingerprint> fingerprint(const QString& videoPath);

  // The stored session of the video when its file reads, decodes, has schemaVersion 1 and the
  // video's fingerprint equals the stored size and date exactly. Otherwise none (logged, except
  // when there is no readable file). A discarded file is left as it is.
  std::optional<Session> loadForVideo(const QString& videoPath) const;

  // Writes the session to the file of the video its bookmark resolves to, creating the folder if
  // needed and replacing any previous file atomically. Failures are logged, never reported.
  void save(const Session& session) const;

 private:
  std::expected<void, QString> write(const QString& target, const Session& session) const;

  QString m_directory;
  const QLoggingCategory* m_log;
};

// The session to save after an edit: schema version 1, the bookmark recorded at opening, the video's
// current fingerprint and the timeline's trim and segments. None when the fingerprint cannot be
// taken (then nothing is to be written).
std::optional<Session> makeSession(std::vector<std::uint8_t> bookmark, const QString& videoPath,
                                   const SpeedTimeline& timeline);

}  // namespace vantrix
