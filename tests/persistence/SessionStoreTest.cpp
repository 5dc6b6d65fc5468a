// SessionStore on real temporary folders, with every log line checked verbatim.
//
// The tests run as root in CI, where permission bits stop no write, so failed saves are made
// with what stops root too: a file where a folder must be, a folder where the file must be, a
// file-size limit (setrlimit), and a read-only folder written by a child that has given up root.

#include "persistence/SessionStore.h"

#include "LogCapture.h"
#include "TestSupport.h"
#include "persistence/Bookmark.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <functional>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantrix {
namespace {

using namespace vantrix::testing;

const QString kCategory = QStringLiteral("vantrix.persistence");
const QString kCorrupt = QStringLiteral("Session discarded: corrupt or undecodable sidecar.");
const QString kMismatch = QStringLiteral("Session discarded: source size/mtime mismatch (file changed).");
const QString kSkipped = QStringLiteral("Session save skipped: bookmark did not resolve.");
QString failed(const QString& description) { return QStringLiteral("Session save failed: ") + description; }
QString osMessage(int error) { return QString::fromLocal8Bit(std::strerror(error)); }
// Every line captured, each of which must be an info line of the persistence category.
QStringList infoLines(const LogCapture& log) {
  QStringList out;
  for (const LogCapture::Line& line : log.lines()) {
    EXPECT_EQ(line.category, kCategory) << line.message.toStdString();
    EXPECT_EQ(line.type, QtInfoMsg) << line.message.toStdString();
    out << line.message;
  }
  return out;
}
QByteArray encoded(const Session& s) { return QByteArray::fromStdString(encodeSession(s).value()); }

class SessionStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { writeVideo(video); }
  QString target() const { return store.sessionFilePath(video); }
  void storeFile(const QByteArray& bytes) {  // as if an earlier save had written it
    ASSERT_TRUE(QDir().mkpath(home.sessionFolder()));
    writeFile(target(), bytes);
  }

  ScopedDataHome home;
  SessionStore store;  // the default folder, under the test's XDG_DATA_HOME
  QString video = home.root() + "/clip.mov";
};

TEST_F(SessionStoreTest, FileNameIsTheSha256OfTheResolvedPath) {
  const QString real = home.root() + "/real";
  ASSERT_TRUE(QDir().mkpath(real + "/sub"));
  writeVideo(real + "/sub/clip.mov");
  ASSERT_TRUE(QFile::link(real + "/sub/clip.mov", home.root() + "/file-link.mov"));
  ASSERT_TRUE(QFile::link(real, home.root() + "/folder-link"));
  const QString previousFolder = QDir::currentPath();
  ASSERT_TRUE(QDir::setCurrent(real));

  // A known digest (a path that does not exist is hashed as written).
  EXPECT_EQ(SessionStore::sessionFileName("/Volumes/Media/clip.mov"),
            "4eb1e0c86029d16d7939cdd7a02d41c8b5f1bb65146ac7acd66c7edb3f63f306.json");
  const QString name = SessionStore::sessionFileName(real + "/sub/clip.mov");
  for (const QString& sameVideo : {home.root() + "/file-link.mov", home.root() + "/folder-link/sub/clip.mov",
                                   real + "/sub/../sub/./clip.mov", QStringLiteral("sub/clip.mov")})
    EXPECT_EQ(SessionStore::sessionFileName(sameVideo), name) << sameVideo.toStdString();
  EXPECT_NE(SessionStore::sessionFileName(video), name);
  QDir::setCurrent(previousFolder);

  const QRegularExpression shape(QStringLiteral("^[0-9a-f]{64}\\.json$"));
  for (const QString& path : {QString(), QStringLiteral("/"), QString::fromUtf8("/home/ana/Vídeos/café ☕.mov"),
                              QString(5000, 'a'), video})
    EXPECT_TRUE(shape.match(SessionStore::sessionFileName(path)).hasMatch()) << path.toStdString();
  EXPECT_EQ(store.sessionFilePath(video), home.sessionFolder() + "/" + SessionStore::sessionFileName(video));
}

TEST_F(SessionStoreTest, FirstSaveCreatesTheFolderAndLoadGivesTheSessionBack) {
  EXPECT_EQ(store.directory(), home.sessionFolder());
  EXPECT_EQ(SessionStore::defaultDirectory(), home.sessionFolder());
  LogCapture log;
  EXPECT_FALSE(store.loadForVideo(video));  // no folder: nothing, silently
  EXPECT_FALSE(QFileInfo::exists(home.sessionFolder()));

  const Session session = sessionFor(video);
  store.save(session);
  EXPECT_EQ(entries(home.sessionFolder()), QStringList{SessionStore::sessionFileName(video)});
  EXPECT_EQ(readFile(target()), encoded(session));
  EXPECT_EQ(store.loadForVideo(video), session);

  Session changed = session;  // a second save replaces the file and leaves no temporary file
  changed.segments.clear();
  store.save(changed);
  EXPECT_EQ(entries(home.sessionFolder()), QStringList{SessionStore::sessionFileName(video)});
  EXPECT_EQ(store.loadForVideo(video), changed);

  QFile::remove(target());
  EXPECT_FALSE(store.loadForVideo(video));  // a folder without the file: nothing, silently
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SessionStoreTest, AChangedVideoDiscardsTheSessionAndKeepsTheFile) {
  const struct {
    const char* what;
    std::function<void()> change;
  } cases[] = {
      {"touched a second later", [&] { setModificationTime(video, kVideoUnixSeconds + 1, kVideoNanoseconds); }},
      {"touched a microsecond later", [&] { setModificationTime(video, kVideoUnixSeconds, kVideoNanoseconds + 1000); }},
      {"one byte longer, same date",
       [&] {
         writeFile(video, QByteArray(1001, 'v'));
         setModificationTime(video, kVideoUnixSeconds, kVideoNanoseconds);
       }},
      {"deleted", [&] { QFile::remove(video); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    writeVideo(video);
    store.save(sessionFor(video));
    ASSERT_TRUE(store.loadForVideo(video));
    const QByteArray file = readFile(target());
    c.change();
    LogCapture log;
    EXPECT_FALSE(store.loadForVideo(video));
    EXPECT_EQ(infoLines(log), QStringList{kMismatch});
    EXPECT_EQ(readFile(target()), file);
  }
}

TEST_F(SessionStoreTest, AnUndecodableFileIsDiscardedAndKeptAsItIs) {
  const std::string valid = encodeSession(sessionFor(video)).value();
  for (const std::string& contents :
       {std::string(), std::string("not json"), valid.substr(0, valid.size() / 2), "[" + valid + "]",
        std::string(valid).replace(valid.find("\"speed\":4"), 9, "\"speed\":3"),
        std::string(valid).replace(valid.find("\"segments\""), 10, "\"segmentz\"")}) {
    SCOPED_TRACE(contents);
    storeFile(QByteArray::fromStdString(contents));
    LogCapture log;
    EXPECT_FALSE(store.loadForVideo(video));
    EXPECT_EQ(infoLines(log), QStringList{kCorrupt});
    EXPECT_EQ(readFile(target()), QByteArray::fromStdString(contents));
  }
}

TEST_F(SessionStoreTest, AnUnknownVersionIsLoggedWithItsNumberBeforeTheFingerprintCounts) {
  const Session current = sessionFor(video);
  for (const std::int64_t version : {std::int64_t{2}, std::int64_t{0}, std::int64_t{-1}, INT64_MAX}) {
    Session other = current;
    other.schemaVersion = version;
    other.fileSize = 1;  // stale as well: the version is checked first
    storeFile(encoded(other));
    LogCapture log;
    EXPECT_FALSE(store.loadForVideo(video));
    EXPECT_EQ(infoLines(log), QStringList{QStringLiteral("Session discarded: unknown schemaVersion %1.").arg(version)});
    EXPECT_EQ(readFile(target()), encoded(other));
  }
  store.save(current);  // the next save overwrites it with version 1
  EXPECT_EQ(store.loadForVideo(video), current);
}

TEST_F(SessionStoreTest, FingerprintIsTheItemsOwnSizeAndDateWithNanoseconds) {
  setModificationTime(video, 978307200 + 753974400, 500000000);
  EXPECT_EQ(SessionStore::fingerprint(video), (FileFingerprint{1000, 753974400.5}));
  setModificationTime(video, 978307200 + 753974400, 123456789);
  const double fine = SessionStore::fingerprint(video)->modificationDate;
  EXPECT_NEAR(fine, 753974400.123456789, 2e-7);
  setModificationTime(video, 978307200 + 753974400, 123457789);  // a microsecond later
  EXPECT_NE(SessionStore::fingerprint(video)->modificationDate, fine);

  // A final symbolic link is not followed: its own size (the target's length) and date count.
  const QString link = home.root() + "/link.mov";
  ASSERT_TRUE(QFile::link(video, link));
  setModificationTime(link, 978307200, 0);
  EXPECT_EQ(SessionStore::fingerprint(link), (FileFingerprint{QFile::encodeName(video).size(), 0.0}));
  EXPECT_FALSE(SessionStore::fingerprint(home.root() + "/missing.mov"));
  EXPECT_EQ(referenceDateFromUnixTime(0, 0), -978307200.0);
}

TEST_F(SessionStoreTest, ABookmarkThatDoesNotResolveSkipsTheSaveAndWritesNothing) {
  const QString dangling = home.root() + "/dangling.mov";
  ASSERT_TRUE(QFile::link(home.root() + "/gone.mov", dangling));
  const QString moved = home.root() + "/moved.mov";
  writeVideo(moved);
  const Session movedSession = sessionFor(moved);
  QFile::rename(moved, moved + ".elsewhere");
  const auto utf8 = [](const std::string& s) { return std::vector<std::uint8_t>(s.begin(), s.end()); };
  const std::vector<std::uint8_t> bookmarks[] = {
      makeBookmark(dangling), {}, utf8("clip.mov"), utf8(video.toStdString() + "\xFF"),
      utf8(video.toStdString() + std::string(1, '\0'))};

  LogCapture log;
  store.save(movedSession);
  for (const auto& bookmark : bookmarks) {
    Session s = sessionFor(video);
    s.videoBookmark = bookmark;
    store.save(s);
  }
  EXPECT_EQ(infoLines(log), QStringList(1 + std::size(bookmarks), kSkipped));
  EXPECT_FALSE(QFileInfo::exists(home.sessionFolder()));  // not even the folder

  store.save(sessionFor(video));  // an earlier file for a video that then went away stays as it is
  const QByteArray before = readFile(target());
  const Session earlier = sessionFor(video);
  QFile::remove(video);
  log.clear();
  store.save(earlier);
  EXPECT_EQ(infoLines(log), QStringList{kSkipped});
  EXPECT_EQ(readFile(target()), before);
}

TEST_F(SessionStoreTest, AFailedSaveIsLoggedAndKeepsThePreviousFile) {
  const QString folder = home.sessionFolder();
  const QString underAFile = home.root() + "/plain/Vantrix";
  writeFile(home.root() + "/plain", "a file");
  const struct {
    const char* what;
    QString storeFolder;
    std::function<void()> breakIt;  // after a first, good save
    QString expected;
  } cases[] = {
      {"the session folder is a file", folder,
       [&] {
         QDir(folder).removeRecursively();
         writeFile(folder, "not a folder");
       },
       failed(QStringLiteral("Could not create the folder %1: %2").arg(folder, osMessage(ENOTDIR)))},
      {"the session folder is under a file", underAFile, [] {},
       failed(QStringLiteral("Could not create the folder %1: %2").arg(underAFile, osMessage(ENOTDIR)))},
      {"the session file is a folder", folder,
       [&] {
         QFile::remove(target());
         QDir().mkpath(target() + "/inside");
       },
       failed(QStringLiteral("Could not write %1: Filename refers to a directory").arg(target()))},
      {"the file system takes no more bytes", folder, [] {},
       failed(QStringLiteral("Could not write %1: %2").arg(target(), osMessage(EFBIG)))},
      {"the date has no JSON form", folder, [] {},
       failed("Could not encode the session: the modification date is not a finite number")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    QDir(folder).removeRecursively();
    QFile::remove(folder);
    store.save(sessionFor(video));
    const QByteArray before = readFile(target());
    c.breakIt();

    Session second = sessionFor(video);
    second.segments.clear();
    if (std::string_view(c.what) == "the date has no JSON form") second.modificationDate = std::nan("");
    const bool limitSize = std::string_view(c.what) == "the file system takes no more bytes";
    rlimit previous{};
    ::getrlimit(RLIMIT_FSIZE, &previous);
    if (limitSize) {
      std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG
      const rlimit tiny{16, previous.rlim_max};
      ::setrlimit(RLIMIT_FSIZE, &tiny);
    }
    LogCapture log;
    SessionStore(c.storeFolder).save(second);
    ::setrlimit(RLIMIT_FSIZE, &previous);

    EXPECT_EQ(infoLines(log), QStringList{c.expected});
    if (QFileInfo(target()).isFile()) {
      EXPECT_EQ(readFile(target()), before);
      EXPECT_EQ(entries(folder), QStringList{SessionStore::sessionFileName(video)});  // no temporary file left
    }
  }
}

// Runs `save` in a child process that has given up root, and returns the child's persistence log
// lines; nothing when root could not be given up.
std::optional<QStringList> saveAsUnprivilegedUser(const std::function<void()>& save) {
  int fds[2];
  if (::pipe(fds) != 0) return std::nullopt;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
    QByteArray out;
    {
      LogCapture log;
      save();
      out = infoLines(log).join('\n').toUtf8();
    }
    ::_exit(::write(fds[1], out.constData(), static_cast<size_t>(out.size())) == out.size() ? 0 : 4);
  }
  ::close(fds[1]);
  QByteArray received;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) received.append(buffer, n);
  ::close(fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return QString::fromUtf8(received).split('\n', Qt::SkipEmptyParts);
}

TEST_F(SessionStoreTest, AReadOnlyFolderFailsTheSaveAndKeepsThePreviousFile) {
  store.save(sessionFor(video));
  const QByteArray before = readFile(target());
  for (const QString& f : {home.root(), home.dataHome()}) ASSERT_EQ(::chmod(QFile::encodeName(f), 0755), 0);
  const QByteArray folder = QFile::encodeName(home.sessionFolder());
  Session second = sessionFor(video);
  second.segments.clear();

  ::chmod(folder, 0555);
  const auto lines = saveAsUnprivilegedUser([&] { store.save(second); });
  if (!lines) GTEST_SKIP() << "could not run the save as an unprivileged user";
  EXPECT_EQ(*lines, QStringList{failed(QStringLiteral("Could not write %1: Existing file %1 is not writable").arg(target()))});
  EXPECT_EQ(readFile(target()), before);

  ::chmod(folder, 0755);
  QFile::remove(target());  // without a previous file, no temporary file can be made in the folder
  ::chmod(folder, 0555);
  EXPECT_EQ(saveAsUnprivilegedUser([&] { store.save(second); }),
            QStringList{failed(QStringLiteral("Could not write %1: %2").arg(target(), osMessage(EACCES)))});
  ::chmod(folder, 0755);
  EXPECT_TRUE(entries(home.sessionFolder()).isEmpty());
}

}  // namespace
}  // namespace vantrix
