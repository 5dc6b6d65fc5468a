// SessionStore on real temporary folders, with every log line checked verbatim. The tests may run
// as root, where permission bits stop no write, so failed saves are made with what stops root too:
// a file where a folder must be, a folder where the file must be, and a file-size limit.

#include "persistence/SessionStore.h"

#include "LogCapture.h"
#include "persistence/Bookmark.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <functional>
#include <tuple>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }

namespace vantrix {
namespace {

using testing::LogCapture;

const QString kCorrupt = QStringLiteral("Session discarded: corrupt or undecodable sidecar.");
const QString kMismatch = QStringLiteral("Session discarded: source size/mtime mismatch (file changed).");
const QString kSkipped = QStringLiteral("Session save skipped: bookmark did not resolve.");
QString failed(const QString& description) { return QStringLiteral("Session save failed: ") + description; }
QString osMessage(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

// The moment given to test videos: 2024-11-21 00:00:00.25 UTC.
constexpr std::int64_t kVideoUnixSeconds = 1732147200;
constexpr long kVideoNanoseconds = 250000000;

void writeFile(const QString& path, const QByteArray& bytes) {
  QFile f(path);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
  ASSERT_EQ(f.write(bytes), bytes.size());
}
QByteArray readFile(const QString& path) {
  QFile f(path);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
// Of the item itself: a symbolic link is not followed.
void setModificationTime(const QString& path, std::int64_t unixSeconds, long nanoseconds) {
  const timespec times[2] = {{static_cast<time_t>(unixSeconds), nanoseconds},
                             {static_cast<time_t>(unixSeconds), nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0);
}
void writeVideo(const QString& path, int size = 1000) {
  writeFile(path, QByteArray(size, 'v'));
  setModificationTime(path, kVideoUnixSeconds, kVideoNanoseconds);
}
// Every name in the folder, hidden ones too: a save leaves no temporary file behind.
QStringList entries(const QString& folder) {
  return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}
// What the app model saves for this video now: a 10 s timeline with x4 over 1..2 s.
Session sessionFor(const QString& videoPath) {
  SpeedTimeline timeline(RationalTime(900000, 90000));
  EXPECT_TRUE(timeline.addSegment(RationalTime(90000, 90000), RationalTime(180000, 90000), Speed::x4));
  return makeSession(makeBookmark(videoPath), videoPath, timeline).value();
}
QByteArray encoded(const Session& s) { return QByteArray::fromStdString(encodeSession(s).value()); }
// Every line captured, each of which must be an info line of the persistence category.
QStringList infoLines(const LogCapture& log) {
  QStringList out;
  for (const LogCapture::Line& line : log.lines()) {
    EXPECT_EQ(line.category, QStringLiteral("vantrix.persistence")) << line.message.toStdString();
    EXPECT_EQ(line.type, QtInfoMsg) << line.message.toStdString();
    out << line.message;
  }
  return out;
}

// XDG_DATA_HOME in a fresh temporary folder while alive, so the store's default folder is in it.
struct DataHome {
  QTemporaryDir dir;
  DataHome() { qputenv("XDG_DATA_HOME", QFile::encodeName(dir.path() + "/data")); }
  ~DataHome() { qunsetenv("XDG_DATA_HOME"); }
};

class SessionStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { writeVideo(video); }
  QString target() const { return store.sessionFilePath(video); }
  void storeFile(const QByteArray& bytes) { writeFile(target(), bytes); }  // as if a save had written it

  DataHome home;
  QString root = home.dir.path();
  QString folder = root + "/data/Vantrix";
  SessionStore store;
  QString video = root + "/clip.mov";
};

TEST_F(SessionStoreTest, FileNameIsTheSha256OfTheResolvedPath) {
  // A known digest, in lower-case hexadecimal (a path that does not exist is hashed as written).
  EXPECT_EQ(SessionStore::sessionFileName("/Volumes/Media/clip.mov"),
            "4eb1e0c86029d16d7939cdd7a02d41c8b5f1bb65146ac7acd66c7edb3f63f306.json");

  ASSERT_TRUE(QDir().mkpath(root + "/real/sub"));
  writeVideo(root + "/real/sub/clip.mov");
  ASSERT_TRUE(QFile::link(root + "/real/sub/clip.mov", root + "/file-link.mov"));
  ASSERT_TRUE(QFile::link(root + "/real", root + "/folder-link"));
  const QString name = SessionStore::sessionFileName(root + "/real/sub/clip.mov");
  for (const QString& sameVideo :
       {root + "/file-link.mov", root + "/folder-link/sub/clip.mov", root + "/real/sub/../sub/./clip.mov"})
    EXPECT_EQ(SessionStore::sessionFileName(sameVideo), name) << sameVideo.toStdString();
  EXPECT_NE(SessionStore::sessionFileName(video), name);
  EXPECT_EQ(store.sessionFilePath(video), folder + "/" + SessionStore::sessionFileName(video));
}

TEST_F(SessionStoreTest, FirstSaveCreatesTheFolderAndLoadGivesTheSessionBack) {
  LogCapture log;
  EXPECT_FALSE(store.loadForVideo(video));  // no folder: nothing, silently
  EXPECT_FALSE(QFileInfo::exists(folder));

  const Session session = sessionFor(video);
  store.save(session);
  EXPECT_EQ(entries(folder), QStringList{SessionStore::sessionFileName(video)});
  EXPECT_EQ(readFile(target()), encoded(session));
  EXPECT_EQ(store.loadForVideo(video), session);

  Session changed = session;
  changed.segments.clear();
  store.save(changed);
  EXPECT_EQ(entries(folder), QStringList{SessionStore::sessionFileName(video)});
  EXPECT_EQ(store.loadForVideo(video), changed);

  QFile::remove(target());
  EXPECT_FALSE(store.loadForVideo(video));  // a folder without the file: nothing, silently
  EXPECT_TRUE(log.lines().empty());
}

// A changed video, an undecodable file or an unknown version: the session counts as absent, the
// reason is logged, the file stays as it is.
TEST_F(SessionStoreTest, ADiscardedSessionIsLoggedAndItsFileKept) {
  const std::string valid = encodeSession(sessionFor(video)).value();
  const auto contents = [&](std::string bytes) {
    return [this, bytes] { storeFile(QByteArray::fromStdString(bytes)); };
  };
  const auto version = [&](std::int64_t v) {
    Session s = sessionFor(video);
    s.schemaVersion = v;
    s.fileSize = 1;  // stale as well: the version is checked first
    return contents(encodeSession(s).value());
  };
  const std::tuple<const char*, std::function<void()>, QString> cases[] = {
      {"touched a microsecond later", [&] { setModificationTime(video, kVideoUnixSeconds, kVideoNanoseconds + 1000); },
       kMismatch},
      {"one byte longer, same date", [&] { writeVideo(video, 1001); }, kMismatch},
      {"deleted", [&] { QFile::remove(video); }, kMismatch},
      {"not JSON", contents("not json"), kCorrupt},
      {"no such speed", contents(std::string(valid).replace(valid.find("\"speed\":4"), 9, "\"speed\":3")), kCorrupt},
      {"version 2", version(2), QStringLiteral("Session discarded: unknown schemaVersion 2.")},
      {"the largest version", version(INT64_MAX),
       QStringLiteral("Session discarded: unknown schemaVersion 9223372036854775807.")},
  };
  for (const auto& [what, spoil, line] : cases) {
    SCOPED_TRACE(what);
    writeVideo(video);
    store.save(sessionFor(video));
    ASSERT_TRUE(store.loadForVideo(video));
    spoil();
    const QByteArray file = readFile(target());
    LogCapture log;
    EXPECT_FALSE(store.loadForVideo(video));
    EXPECT_EQ(infoLines(log), QStringList{line});
    EXPECT_EQ(readFile(target()), file);
  }
}

// Dates are seconds since 2001 with the file's nanoseconds, of the item itself (lstat).
TEST_F(SessionStoreTest, FingerprintIsTheItemsOwnSizeAndDate) {
  setModificationTime(video, 978307200 + 753974400, 500000000);
  EXPECT_EQ(SessionStore::fingerprint(video), (FileFingerprint{1000, 753974400.5}));
  const QString link = root + "/link.mov";
  ASSERT_TRUE(QFile::link(video, link));
  setModificationTime(link, 978307200, 0);
  EXPECT_EQ(SessionStore::fingerprint(link), (FileFingerprint{QFile::encodeName(video).size(), 0.0}));
  EXPECT_FALSE(SessionStore::fingerprint(root + "/missing.mov"));
}

TEST_F(SessionStoreTest, ABookmarkThatDoesNotResolveSkipsTheSaveAndWritesNothing) {
  const QString gone = root + "/gone.mov";
  writeVideo(gone);
  const Session deleted = sessionFor(gone);
  QFile::remove(gone);
  const QString dangling = root + "/dangling.mov";
  ASSERT_TRUE(QFile::link(gone, dangling));
  const auto utf8 = [](const std::string& s) { return std::vector<std::uint8_t>(s.begin(), s.end()); };
  const std::vector<std::uint8_t> bookmarks[] = {deleted.videoBookmark,
                                                 makeBookmark(dangling),
                                                 {},
                                                 utf8("clip.mov"),
                                                 utf8(video.toStdString() + "\xFF"),
                                                 utf8(video.toStdString() + std::string(1, '\0'))};

  LogCapture log;
  for (const auto& bookmark : bookmarks) {
    Session s = sessionFor(video);
    s.videoBookmark = bookmark;
    store.save(s);
  }
  EXPECT_EQ(infoLines(log), QStringList(std::size(bookmarks), kSkipped));
  EXPECT_FALSE(QFileInfo::exists(folder));  // not even the folder
}

// Each case breaks the second of two saves; the first one's file stays as it was.
TEST_F(SessionStoreTest, AFailedSaveIsLoggedAndKeepsThePreviousFile) {
  Session second = sessionFor(video);
  second.segments.clear();
  Session undatable = second;
  undatable.modificationDate = std::nan("");
  rlimit unlimited{};
  ::getrlimit(RLIMIT_FSIZE, &unlimited);
  std::signal(SIGXFSZ, SIG_IGN);  // a write past the size limit then fails with EFBIG
  const auto noMoreBytes = [&] {
    const rlimit tiny{16, unlimited.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &tiny);
  };
  // clang-format off
  const std::tuple<const char*, std::function<void()>, Session, QString> cases[] = {
      {"the session folder is a file", [&] { QDir(folder).removeRecursively(); writeFile(folder, "a file"); }, second,
       failed(QStringLiteral("Could not create the folder %1: %2").arg(folder, osMessage(ENOTDIR)))},
      {"the session file is a folder", [&] { QFile::remove(target()); QDir().mkpath(target() + "/inside"); }, second,
       failed(QStringLiteral("Could not write %1: Filename refers to a directory").arg(target()))},
      {"the file system takes no more bytes", noMoreBytes, second,
       failed(QStringLiteral("Could not write %1: %2").arg(target(), osMessage(EFBIG)))},
      {"the date has no JSON form", [] {}, undatable,
       failed("Could not encode the session: the modification date is not a finite number")},
  };
  // clang-format on
  for (const auto& [what, breakIt, session, line] : cases) {
    SCOPED_TRACE(what);
    QDir(folder).removeRecursively();
    QFile::remove(folder);
    store.save(sessionFor(video));
    const QByteArray before = readFile(target());
    breakIt();
    LogCapture log;
    store.save(session);
    ::setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_EQ(infoLines(log), QStringList{line});
    if (QFileInfo(target()).isFile()) {
      EXPECT_EQ(readFile(target()), before);
      EXPECT_EQ(entries(folder), QStringList{SessionStore::sessionFileName(video)});
    }
  }
}

}  // namespace
}  // namespace vantrix
