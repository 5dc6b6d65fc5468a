#include "TestSupport.h"

#include "persistence/Bookmark.h"
#include "persistence/SessionStore.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace vantrix::testing {

ScopedDataHome::ScopedDataHome()
    : m_previous(qgetenv("XDG_DATA_HOME")), m_hadPrevious(qEnvironmentVariableIsSet("XDG_DATA_HOME")) {
  EXPECT_TRUE(m_dir.isValid());
  qputenv("XDG_DATA_HOME", QFile::encodeName(dataHome()));
}

ScopedDataHome::~ScopedDataHome() {
  if (m_hadPrevious)
    qputenv("XDG_DATA_HOME", m_previous);
  else
    qunsetenv("XDG_DATA_HOME");
}

void writeFile(const QString& path, const QByteArray& bytes) {
  QFile f(path);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
  ASSERT_EQ(f.write(bytes), bytes.size());
}

QByteArray readFile(const QString& path) {
  QFile f(path);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void setModificationTime(const QString& path, std::int64_t unixSeconds, long nanoseconds) {
  const timespec times[2] = {{static_cast<time_t>(unixSeconds), nanoseconds},
                             {static_cast<time_t>(unixSeconds), nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0)
      << path.toStdString();
}

QStringList entries(const QString& folder) {
  return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

void writeVideo(const QString& path, int size) {
  writeFile(path, QByteArray(size, 'v'));
  setModificationTime(path, kVideoUnixSeconds, kVideoNanoseconds);
}

Session sessionFor(const QString& videoPath) {
  SpeedTimeline timeline(RationalTime(900000, 90000));
  EXPECT_TRUE(timeline.addSegment(RationalTime(90000, 90000), RationalTime(180000, 90000), Speed::x4));
  const auto session = makeSession(makeBookmark(videoPath), videoPath, timeline);
  EXPECT_TRUE(session) << videoPath.toStdString();
  return session.value_or(Session{});
}

}  // namespace vantrix::testing
