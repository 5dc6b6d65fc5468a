#include "AppTestSupport.h"

#include "persistence/Bookmark.h"

#include <QDir>
#include <QFile>

#include <utime.h>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;

class SessionTest : public AppModelTest {
 protected:
  QString qPath(const fs::path& p) const { return QString::fromStdString(p.string()); }
};

struct Shape {
  RationalTime start, end;
  Speed speed;
  friend bool operator==(const Shape&, const Shape&) = default;
};

std::vector<Shape> shapes(const SpeedTimeline& t) {
  std::vector<Shape> out;
  for (const auto& s : t.segments()) out.push_back({s.start, s.end, s.speed});
  return out;
}

TEST_F(SessionTest, EditsComeBackInANewModelWithNewIds) {
  const fs::path clip = copyFixture(clipSpec(), "clip.mp4");
  std::optional<SpeedTimeline> edited;
  {
    auto model = makeModel();
    openAndWait(*model, clip);
    model->addSegment(ms(2000), ms(2500), Speed::x8);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->setTrim(ms(250), ms(2750));
    edited = model->timeline();
  }
  m_undo.clear();
  auto reopened = makeModel();
  openAndWait(*reopened, clip);
  ASSERT_TRUE(reopened->timeline());
  EXPECT_EQ(reopened->timeline()->trimStart(), ms(250));
  EXPECT_EQ(reopened->timeline()->trimEnd(), ms(2750));
  EXPECT_EQ(shapes(*reopened->timeline()), shapes(*edited));
  for (std::size_t i = 0; i < edited->segments().size(); ++i)
    EXPECT_NE(reopened->timeline()->segments()[i].id, edited->segments()[i].id);
}

// Ways a stored session stops fitting its video; each opens the video fresh and says why.
struct StaleCase {
  const char* name;
  std::function<void(const fs::path& clip, const SessionStore& store)> spoil;
  const char* category;
  const char* line;
};
void PrintTo(const StaleCase& c, std::ostream* os) { *os << c.name; }

void touch(const fs::path& clip, const SessionStore&) {
  struct stat st {};
  ASSERT_EQ(::stat(clip.c_str(), &st), 0);
  const struct utimbuf later { st.st_atime, st.st_mtime + 7 };
  ASSERT_EQ(::utime(clip.c_str(), &later), 0);
}

// Rewrites the stored session with its segments replaced (fingerprint kept, so the store trusts it).
void storeSegments(const fs::path& clip, const SessionStore& store, std::vector<SpeedSegment> segments,
                   std::optional<RationalTime> trimEnd = {}) {
  auto session = store.loadForVideo(QString::fromStdString(clip.string()));
  ASSERT_TRUE(session);
  session->segments = std::move(segments);
  if (trimEnd) session->trimEnd = *trimEnd;
  store.save(*session);
}

const StaleCase kStale[] = {
    {"TouchedFile", touch, "vantrix.persistence", "Session discarded: source size/mtime mismatch (file changed)."},
    {"OverlappingSegments",
     [](const fs::path& clip, const SessionStore& store) {
       storeSegments(clip, store,
                     {{Uuid::random(), ms(500), ms(1500), Speed::x2}, {Uuid::random(), ms(1000), ms(2000), Speed::x4}});
     },
     "vantrix.app", "Restored session violated a domain invariant; starting fresh: overlap"},
    {"ReversedSegment",
     [](const fs::path& clip, const SessionStore& store) {
       storeSegments(clip, store, {{Uuid::random(), ms(1500), ms(500), Speed::x2}});
     },
     "vantrix.app", "Restored session violated a domain invariant; starting fresh: invalidRange"},
    {"TrimBeyondTheVideo",
     [](const fs::path& clip, const SessionStore& store) { storeSegments(clip, store, {}, RationalTime::seconds(10)); },
     "vantrix.app", "Restored session violated a domain invariant; starting fresh: invalidTrim"},
};

class StaleSessionTest : public SessionTest, public ::testing::WithParamInterface<StaleCase> {};

TEST_P(StaleSessionTest, OpensFreshAndLogsWhy) {
  const fs::path clip = copyFixture(clipSpec(), "clip.mp4");
  {
    auto model = makeModel();
    openAndWait(*model, clip);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->setTrim(ms(100), ms(2900));
  }
  m_undo.clear();
  GetParam().spoil(clip, SessionStore());

  LogCapture log;
  auto model = makeModel();
  openAndWait(*model, clip);
  EXPECT_EQ(model->timeline(), SpeedTimeline(model->duration()));
  EXPECT_EQ(log.messages(GetParam().category), QStringList{GetParam().line});
}

INSTANTIATE_TEST_SUITE_P(Sessions, StaleSessionTest, ::testing::ValuesIn(kStale),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(SessionTest, WithoutABookmarkEditsWorkAndNothingIsWritten) {
  AppServices services = realServices();
  services.makeBookmark = [](const QString&) { return std::nullopt; };
  auto model = makeModel(services);
  openAndWait(*model, copyFixture(clipSpec(), "clip.mp4"));
  model->addSegment(ms(500), ms(1000), Speed::x2);
  model->setTrim(ms(100), ms(2900));
  m_undo.undo();
  m_undo.redo();
  EXPECT_EQ(model->timeline()->segments().size(), 1u);
  EXPECT_EQ(model->currentVideoBookmark(), std::nullopt);
  EXPECT_TRUE(QDir(sessionDirectory()).entryList(QDir::Files).isEmpty());
}

}  // namespace
}  // namespace vantrix
