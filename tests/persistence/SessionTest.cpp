// Sessions: the file format, restoring a timeline, the store (on real folders, log lines verbatim), the fuzz replay.
#include "LogCapture.h"
#include "SessionProperties.h"
#include "persistence/Bookmark.h"
#include "persistence/SessionRestore.h"
#include "persistence/SessionStore.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }
namespace vantrix {
namespace {

using RT = RationalTime;
using E = SpeedTimelineError;
std::vector<std::uint8_t> bytes(std::string_view s) { return {s.begin(), s.end()}; }

// The bookmark "/home/ana/Vídeos/café?.mov" has a "/" and padding in its base64; the date needs 17 significant
// digits. Written by hand from the format.
const std::string kGolden =
    R"({"schemaVersion":1,"videoBookmark":"L2hvbWUvYW5hL1bDrWRlb3MvY2Fmw6k\/Lm1vdg==","fileSize":73400320,)"
    R"("modificationDate":753974400.1234568,"trimStart":{"value":0,"timescale":1},)"
    R"("trimEnd":{"value":5400000,"timescale":90000},"segments":[)"
    R"({"id":"6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3","start":{"value":900000,"timescale":90000},)"
    R"("end":{"value":1350000,"timescale":90000},"speed":4},)"
    R"({"id":"0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D","start":{"value":2,"timescale":1},)"
    R"("end":{"value":6,"timescale":2},"speed":16}]})";
Session golden() {
  return {.videoBookmark = bytes("/home/ana/V\xC3\xAD" "deos/caf\xC3\xA9?.mov"), .fileSize = 73400320,
          .modificationDate = 753974400.123456789, .trimStart = {0, 1}, .trimEnd = {5400000, 90000},
          .segments = {
              {*Uuid::parse("6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3"), {900000, 90000}, {1350000, 90000}, Speed::x4},
              {*Uuid::parse("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d"), {2, 1}, {6, 2}, Speed::x16}}};
}
// `text` with the first `from` replaced by `to`.
std::string edit(std::string text, std::string_view from, std::string_view to) {
  return text.replace(text.find(from), from.size(), to);
}

// Decoding gives back an equal session that is also identical: its encoding spells out each time's value and
// timescale and the date's shortest round-trip digits (so the date bit for bit).
TEST(SessionJson, GoldenBytesBothWays) {
  EXPECT_EQ(encodeSession(golden()).value(), kGolden);
  EXPECT_EQ(decodeSession(kGolden).value(), golden());
  EXPECT_EQ(encodeSession(decodeSession(kGolden).value()).value(), kGolden);
}

// Decodes to the golden session ("decoded") or names the first violation, which makes the whole file undecodable.
TEST(SessionJson, DecodingTable) {
  const auto g = [](std::string_view from, std::string_view to) { return edit(kGolden, from, to); };
  std::vector<std::pair<std::string, std::string>> cases = {
      {edit(g(R"("schemaVersion":1,)", ""), "]}", R"(],"schemaVersion":1})"), "decoded"},  // members reordered
      {g(R"({"value":0,"timescale":1})", R"({"timescale":1,"value":0})"), "decoded"},
      {edit(g("{", R"({"note":{"deep":[1,{"x":null}]},)"), R"("speed":4)", R"("speed":4,"colour":"red")"), "decoded"},
      {g(R"(\/)", "/"), "decoded"},  // the golden bytes have "\/"
      {g(R"("value":0,)", ""), "trimStart.value: missing"},
      {g(R"("speed":4)", R"("x":4)"), "segments[0].speed: missing"},
      {g("73400320", R"("73400320")"), "fileSize: not an integer"},
      {g(R"("value":0,)", R"("value":1.5,)"), "trimStart.value: not an integer"},
      {g(R"("timescale":1})", R"("timescale":9223372036854775808})"),
       "trimStart.timescale: integer out of the signed 64-bit range"},
      {g(R"("segments":[)", R"("segments":{},"x":[)"), "segments: not an array"},
      {g("753974400.1234568", R"("5.5")"), "modificationDate: not a number"},
      {g("6F1C2A9E-3B7D", "6F1C2A9E3B7D"), "segments[0].id: not a UUID"},
      {"[]", "document: the top level is not an object"}, {kGolden.substr(0, 40), "document: not valid JSON"}};
  for (const std::string key :
       {"schemaVersion", "videoBookmark", "fileSize", "modificationDate", "trimStart", "trimEnd", "segments"})
    cases.emplace_back(g('"' + key + '"', "\"x" + key + '"'), key + ": missing");
  for (const std::string value : {"1", "3", "6", "32", "-2"})
    cases.emplace_back(g(R"("speed":4)", R"("speed":)" + value), "segments[0].speed: not a speed (2, 4, 8 or 16)");
  // Only canonical padded standard base64: no missing or stray padding, no unused bits set, no other alphabet.
  for (const char* text : {"Ym9vaw", "Zg=", "Zm9vY", "Zg==Zg==", "Z===", "Zh==", "Zm9=", "Zm-v", "Zm_v", " Zm9v"})
    cases.emplace_back(g(R"(L2hvbWUvYW5hL1bDrWRlb3MvY2Fmw6k\/Lm1vdg==)", text),
                       "videoBookmark: not padded standard base64");
  for (const auto& [text, expected] : cases) {
    const auto decoded = decodeSession(text);
    EXPECT_EQ(decoded ? "decoded" : decoded.error().message, expected) << text;
    EXPECT_TRUE(!decoded || encodeSession(*decoded).value() == kGolden) << text;
  }
}

RT s(std::int64_t seconds) { return RT(seconds * 90000, 90000); }
Session stored(RT trimStart, RT trimEnd, const std::vector<std::tuple<RT, RT, Speed>>& segments) {
  Session out{.videoBookmark = {}, .trimStart = trimStart, .trimEnd = trimEnd, .segments = {}};
  for (const auto& [start, end, speed] : segments) out.segments.push_back({Uuid::random(), start, end, speed});
  return out;
}

TEST(SessionRestore, RestoresTrimAndSegmentsSortedWithFreshIds) {
  const Session session =
      stored(s(1), s(9), {{s(6), s(8), Speed::x16}, {s(2), s(3), Speed::x2}, {RT(4, 1), s(6), Speed::x8}});
  const RestoredTimeline opened = restoreTimelineOrFresh(session, s(10));
  const SpeedTimeline& t = opened.timeline;
  EXPECT_EQ(std::tuple(opened.refusal, t.sourceDuration(), t.trimStart(), t.trimEnd()),
            std::tuple(std::nullopt, s(10), s(1), s(9)));
  std::vector<SpeedSegment> expected{session.segments[1], session.segments[2], session.segments[0]};
  for (std::size_t i = 0; i < expected.size() && i < t.segments().size(); ++i) {
    EXPECT_EQ(std::ranges::count(session.segments, t.segments()[i].id, &SpeedSegment::id), 0) << "a stored id";
    expected[i].id = t.segments()[i].id;
  }
  EXPECT_EQ(t.segments(), expected);
  EXPECT_EQ(t.segments()[1].start.timescale(), 1);  // the stored representation is kept
}

TEST(SessionRestore, AnyRefusalGivesTheFreshTimelineNeverAPartOne) {
  const RT longVideo(540000090000, 45000);  // 139 days
  const std::tuple<Session, RT, E> cases[] = {
      {stored(s(0), s(10), {}), s(8), E::invalidTrim},  // trim end past the video's current duration
      {stored(s(0), s(10), {{s(1), s(2), Speed::x2}, {s(5), s(4), Speed::x4}}), s(10), E::invalidRange},
      {stored(s(2), s(8), {{s(3), s(4), Speed::x2}, {s(7), s(9), Speed::x4}}), s(10), E::outsideTrim},
      {stored(s(0), s(10), {{s(1), s(3), Speed::x2}, {s(6), s(7), Speed::x8}, {s(2), s(4), Speed::x4}}), s(10),
       E::overlap},
      // Times whose exact arithmetic could not be combined; the last two are fuzzer findings.
      {stored(s(0), RT(5, 0), {}), s(10), E::invalidTrim},
      {stored(s(0), RT(4294967294, 2147483647), {}), s(10), E::invalidTrim},
      {stored(s(0), s(10), {{RT(-1, -1), s(2), Speed::x2}}), s(10), E::invalidRange},
      {stored(s(0), s(100), {{s(1), s(2), Speed::x2}, {RT(900000, 89999), s(15), Speed::x4}}), s(100), E::invalidRange},
      {stored(s(0), longVideo, {{RT(900000, 19365), s(58), Speed::x16}}), longVideo, E::invalidRange}};
  for (int row = 0; const auto& [session, duration, error] : cases) {
    const RestoredTimeline opened = restoreTimelineOrFresh(session, duration);
    EXPECT_EQ(opened.timeline, SpeedTimeline(duration)) << "row " << row;
    EXPECT_EQ(opened.refusal, error) << "row " << row++;
  }
  // What the editor stores is never refused: 0/1, the video's own timescale (strip gestures) and 90000 (player).
  for (const std::int64_t ts : {600, 1000, 2997, 12800, 15360, 24000, 30000, 44100, 48000, 90000, 1000000}) {
    const RT length(10 * ts, ts);
    const auto restored = restoreTimeline(
        stored(RT::zero(), length, {{s(1), s(2), Speed::x2}, {RT(5 * ts, ts), RT(7 * ts, ts), Speed::x8}}), length);
    EXPECT_EQ(restored ? restored->outputDuration() : RT(-1, 1), RT(7750, 1000)) << ts;  // 10 - 1 - 2 + 0.5 + 0.25
  }
}

// The fuzzer's seeds (valid session files) and every input it ever found keep its properties: findings stay fixed.
TEST(SessionFuzzFindings, SeedsAndEveryPastFindingHoldTheProperties) {
  int checked = 0;
  for (const auto& [folder, seeds] :
       {std::pair(VANTRIX_FUZZ_CORPUS_DIR, true), std::pair(VANTRIX_FUZZ_FINDINGS_DIR, false)})
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (!entry.is_regular_file() || entry.path().filename() == "README.md") continue;
      std::stringstream text;
      text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
      EXPECT_EQ(fuzz::checkSessionProperties(text.str()), std::nullopt) << entry.path();
      EXPECT_TRUE(!seeds || decodeSession(text.str())) << entry.path() << " does not decode";
      ++checked;
    }
  EXPECT_GE(checked, 6);  // four seeds and two findings at least
}

// The store. The tests may run as root, where permission bits stop no write.
const QString kMismatch = QStringLiteral("Session discarded: source size/mtime mismatch (file changed).");
QByteArray readFile(const QString& path) { QFile f(path); return f.open(QIODevice::ReadOnly) ? f.readAll() : ""; }
void writeFile(const QString& path, const QByteArray& bytes) {
  QFile f(path);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size()) << path.toStdString();
}
// Of the item itself: a symbolic link is not followed.
void touch(const QString& path, std::int64_t unixSeconds, long nanoseconds) {
  const timespec times[2] = {{time_t(unixSeconds), nanoseconds}, {time_t(unixSeconds), nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0);
}
QStringList entries(const QString& folder) {
  return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}
// Every line captured, each of which must be an info line of the persistence category.
QStringList infoLines(const testing::LogCapture& log) {
  QStringList out;
  for (const auto& [category, type, message] : log.lines())
    out << (category == "vantrix.persistence" && type == QtInfoMsg ? message : category + " not at info: " + message);
  return out;
}

// A 1000-byte video dated 2024-11-21 00:00:00.25 UTC, in a fresh temporary folder.
class SessionStoreTest : public ::testing::Test {
 protected:
  SessionStoreTest() { writeVideo(); }
  void writeVideo(int size = 1000) {
    writeFile(video, QByteArray(size, 'v'));
    touch(video, 1732147200, 250000000);
  }
  QString target() const { return store.sessionFilePath(video); }
  // What the app model saves for the video now: a 10 s timeline with x4 over 1..2 s.
  Session session() const {
    SpeedTimeline timeline(s(10));
    EXPECT_TRUE(timeline.addSegment(s(1), s(2), Speed::x4));
    return makeSession(makeBookmark(video), video, timeline).value();
  }

  QTemporaryDir dir;
  QString root = dir.path(), folder = root + "/data/Vantrix", video = root + "/clip.mov";
  SessionStore store{folder};
};

TEST_F(SessionStoreTest, FileNameIsTheSha256OfTheResolvedPathAndTheFingerprintTheLinksOwn) {
  EXPECT_EQ(SessionStore::sessionFileName("/Volumes/Media/clip.mov"),  // a path that does not exist, as written
            "4eb1e0c86029d16d7939cdd7a02d41c8b5f1bb65146ac7acd66c7edb3f63f306.json");
  ASSERT_TRUE(QDir().mkpath(root + "/real/sub") && QFile::copy(video, root + "/real/sub/clip.mov"));
  ASSERT_TRUE(QFile::link(root + "/real/sub/clip.mov", root + "/link.mov") && QFile::link(root + "/real", root + "/l"));
  const QString name = SessionStore::sessionFileName(root + "/real/sub/clip.mov");
  for (const QString& same : {root + "/link.mov", root + "/l/sub/clip.mov", root + "/real/../real/sub/./clip.mov"})
    EXPECT_EQ(SessionStore::sessionFileName(same), name) << same.toStdString();
  touch(root + "/link.mov", 978307200, 0);  // the fingerprint is the link's own (lstat): 2001-01-01, its length
  EXPECT_EQ(SessionStore::fingerprint(root + "/link.mov"),
            (FileFingerprint{QFile::encodeName(root + "/real/sub/clip.mov").size(), 0}));
}

// A bookmark that does not resolve (deleted, dangling, empty, relative, not UTF-8) writes nothing, not even the
// folder; the first save that resolves creates it. Loading without a folder or file is silent.
TEST_F(SessionStoreTest, SavesOnlyWhereTheBookmarkResolvesAndLoadGivesTheSessionBack) {
  ASSERT_TRUE(QFile::link(root + "/gone.mov", root + "/dangling.mov"));
  testing::LogCapture log;
  EXPECT_FALSE(store.loadForVideo(video));
  for (const auto& bookmark : {makeBookmark(root + "/gone.mov"), makeBookmark(root + "/dangling.mov"), bytes(""),
                               bytes("clip.mov"), bytes(video.toStdString() + "\xFF")}) {
    Session s = session();
    s.videoBookmark = bookmark;
    store.save(s);
  }
  EXPECT_FALSE(QFileInfo::exists(folder));
  Session saved = session();
  EXPECT_EQ(std::pair(saved.fileSize, saved.modificationDate), std::pair(std::int64_t{1000}, 753840000.25));
  store.save(saved);
  EXPECT_EQ(readFile(target()).toStdString(), encodeSession(saved).value());
  saved.segments.clear();
  store.save(saved);
  EXPECT_EQ(store.loadForVideo(video), saved);
  EXPECT_EQ(entries(folder), QStringList{SessionStore::sessionFileName(video)});  // no temporary file left
  QFile::remove(target());
  EXPECT_FALSE(store.loadForVideo(video));
  EXPECT_EQ(infoLines(log), QStringList(5, "Session save skipped: bookmark did not resolve."));
}

// A changed video, an undecodable file or an unknown version: the session counts as absent, the reason is logged,
// the file stays as it is.
TEST_F(SessionStoreTest, ADiscardedSessionIsLoggedAndItsFileKept) {
  // Version 2 with a stale size as well: the version is checked first.
  const std::string version2 = edit(edit(encodeSession(session()).value(), R"("schemaVersion":1)",
                                         R"("schemaVersion":2)"), R"("fileSize":1000)", R"("fileSize":1)");
  const std::pair<std::function<void()>, QString> cases[] = {
      {[&] { touch(video, 1732147200, 250001000); }, kMismatch},  // a microsecond later
      {[&] { writeVideo(1001); }, kMismatch},                     // one byte longer, same date
      {[&] { writeFile(target(), "not json"); }, "Session discarded: corrupt or undecodable sidecar."},
      {[&] { writeFile(target(), QByteArray::fromStdString(version2)); },
       "Session discarded: unknown schemaVersion 2."}};
  for (const auto& [spoil, line] : cases) {
    writeVideo();
    store.save(session());
    ASSERT_TRUE(store.loadForVideo(video));
    spoil();
    const QByteArray file = readFile(target());
    testing::LogCapture log;
    EXPECT_FALSE(store.loadForVideo(video));
    EXPECT_EQ(infoLines(log), QStringList{line});
    EXPECT_EQ(readFile(target()), file);
  }
}

// A save that fails part-way (at a file-size limit, which stops root too) is logged and keeps the previous file.
TEST_F(SessionStoreTest, AFailedSaveIsLoggedAndKeepsThePreviousFile) {
  Session first = session();
  first.segments.clear();
  store.save(first);
  rlimit limit{};
  ::getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit tiny{16, limit.rlim_max};
  std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG
  testing::LogCapture log;
  ::setrlimit(RLIMIT_FSIZE, &tiny);
  store.save(session());
  ::setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(infoLines(log), QStringList{QStringLiteral("Session save failed: Could not write %1: %2")
                                            .arg(target(), std::strerror(EFBIG))});
  EXPECT_EQ(readFile(target()).toStdString(), encodeSession(first).value());
  EXPECT_EQ(entries(folder), QStringList{SessionStore::sessionFileName(video)});  // no temporary file left
}

}  // namespace
}  // namespace vantrix
