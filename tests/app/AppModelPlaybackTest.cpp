// The preview in step with the edits, the filmstrip, and the export flow, on one model.

#include "AppTestSupport.h"

#include <QSignalSpy>

namespace vantrix {
namespace {

using namespace vantrix::testing;
using Status = Player::TimeControlStatus;

bool shows(const Player& player, Status status, std::int64_t frame) {
  return waitUntil([&] {
    return player.timeControlStatus() == status && player.currentFrame() &&
           readBarcode(player.currentFrame()->image) == frame;
  });
}

TEST_F(AppModelTest, ThePreviewFilmstripAndExportFollowTheEdits) {
  Rig rig;
  rig.holdBuilds = true;
  auto model = makeModel(rig.services());
  model->openVideo(copyClip());
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  model->exportVideo();  // nothing to export before the first preview is installed
  EXPECT_TRUE(m_requests.empty() && !model->canExport());
  rig.holdBuilds = false;
  ASSERT_TRUE(installed(*model));
  Player& player = *model->player();
  for (const auto& [request, expected] : {std::pair{-500, 0}, {10000, 3000}, {1500, 1500}}) {
    model->seek(ms(request));
    EXPECT_EQ(model->currentTime(), ms(expected));
  }

  // While an edit's preview is built, the playhead reads source time through the old one; the
  // latest build takes over at the same source frame (30 a second) and plays on.
  model->togglePlayPause();
  ASSERT_TRUE(shows(player, Status::playing, 45));
  QSignalSpy installs(model.get(), &AppModel::compositionChanged);
  rig.holdBuilds = true;
  model->addSegment(ms(0), ms(1000), Speed::x2);
  model->changeSpeed(model->timeline()->segments()[0].id, Speed::x4);  // supersedes the first build
  rig.clock->advance(std::chrono::milliseconds(100));
  ASSERT_TRUE(waitUntil([&] { return model->currentTime() != ms(1500); }));
  EXPECT_EQ(model->currentTime(), ms(1600));  // through the new timeline it would read 2.35 s
  EXPECT_EQ(model->currentTime().timescale(), RationalTime::kStandardTimescale);
  rig.holdBuilds = false;
  ASSERT_TRUE(installed(*model));
  ASSERT_TRUE(shows(player, Status::playing, 48));
  EXPECT_EQ(player.currentTime(), ms(850));  // source 1.6 s in the new preview
  rig.clock->advance(std::chrono::milliseconds(100));
  EXPECT_TRUE(shows(player, Status::playing, 51));
  EXPECT_EQ(installs.count(), 1);
  model->togglePlayPause();
  model->seek(ms(2000));
  EXPECT_EQ(player.currentTime(), ms(1250));
  rig.failBuilds = true;  // a failed build is only logged
  LogCapture log;
  model->addSegment(ms(2000), ms(2500), Speed::x2);
  ASSERT_TRUE(waitUntil([&] { return !log.messages("vantrix.app").isEmpty(); }));
  EXPECT_EQ(log.messages("vantrix.app"),
            QStringList{"Composition rebuild failed: Vantrix couldn't prepare this video. Try opening it again."});
  EXPECT_EQ(installs.count(), 1);
  EXPECT_EQ(model->activeError(), std::nullopt);

  // Slot i of n shows frame 90 * i / n; a superseded filmstrip's stills come after, and must not land.
  rig.heldStrip = 8, rig.holdStrip = true;
  model->requestThumbnails(8, 120, 1);
  model->requestThumbnails(3, 120, 1);
  ASSERT_TRUE(waitUntil([&] { return std::ranges::none_of(model->thumbnails(), &QImage::isNull); }));
  rig.holdStrip = false;
  ASSERT_TRUE(waitUntil([&] { return rig.stripsDone == 2; }));
  runEventsFor(100);  // for what it posted
  ASSERT_EQ(model->thumbnails().size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(readBarcode(model->thumbnails()[i]), 90 * i / 3) << i;

  // The export of the installed preview reports its progress and reveals the file (what the file
  // holds the long video's trim proves); a cancelled one leaves nothing and shows nothing.
  std::vector<double> progress;
  QObject::connect(model.get(), &AppModel::exportProgressChanged, [&] {
    if (model->exportProgress()) progress.push_back(*model->exportProgress());
  });
  ASSERT_TRUE(exportTo(*model, dir() / "out.mp4"));
  EXPECT_EQ(std::pair(m_requests.at(0).startFolder, m_requests.at(0).suggestedName),
            std::pair(qs(dir()), QString("clip-vantrix.mp4")));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_EQ(m_revealed, std::vector{qs(dir() / "out.mp4")});
  EXPECT_TRUE(progress.front() == 0.0 && std::ranges::is_sorted(progress) && progress.back() == 1.0);
  m_answer = qs(dir() / "cancelled.mp4");
  model->exportVideo();
  EXPECT_FALSE(model->canExport());
  model->cancelExport();
  ASSERT_TRUE(waitUntil([&] { return model->canExport(); }));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_EQ(m_revealed.size(), 1u);
  EXPECT_FALSE(fs::exists(dir() / "cancelled.mp4"));
}

}  // namespace
}  // namespace vantrix
