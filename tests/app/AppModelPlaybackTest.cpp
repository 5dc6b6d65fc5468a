#include "AppTestSupport.h"

namespace vantrix::testing {
using Status = Player::TimeControlStatus;

static bool shows(const Player& player, Status status, std::int64_t frame) {
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
  m_answer = qs(dir() / "early.mp4");
  model->exportVideo();  // nothing to export before the first preview is installed
  EXPECT_FALSE(model->isExporting() || model->canExport());
  rig.holdBuilds = false;
  ASSERT_TRUE(installed(*model));
  Player& player = *model->player();
  model->seek(ms(1500));

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
  // 1.6 s at timescale 90000; through the new timeline it would read 2.35 s
  EXPECT_TRUE(model->currentTime() == ms(1600) && model->currentTime().timescale() == 90000)
      << model->currentTime().toString();
  rig.holdBuilds = false;
  ASSERT_TRUE(installed(*model));
  ASSERT_TRUE(shows(player, Status::playing, 48));
  EXPECT_EQ(player.currentTime(), ms(850));  // source 1.6 s in the new preview
  rig.clock->advance(std::chrono::milliseconds(100));
  EXPECT_TRUE(shows(player, Status::playing, 51));
  model->seek(ms(2000));
  EXPECT_EQ(player.currentTime(), ms(1250));
  EXPECT_EQ(installs.count(), 1);

  // Slot i of n shows frame 90 * i / n; a superseded filmstrip's stills come after, and must not land.
  rig.heldStrip = 8, rig.holdStrip = true;
  model->requestThumbnails(8, 120, 1);
  model->requestThumbnails(3, 120, 1);
  ASSERT_TRUE(waitUntil([&] { return std::ranges::none_of(model->thumbnails(), &QImage::isNull); }));
  rig.holdStrip = false;
  ASSERT_TRUE(waitUntil([&] { return rig.stripsDone == 2; }));
  runEventsFor(100);  // for what it posted
  for (int i = 0; i < 3; ++i) EXPECT_EQ(readBarcode(model->thumbnails().at(i)), 90 * i / 3) << i;

  // The export of the installed preview reveals the file (what the file holds the long video's trim
  // proves); a cancelled one leaves nothing and shows nothing.
  ASSERT_TRUE(exportTo(*model, dir() / "out.mp4"));
  EXPECT_TRUE(!model->activeError() && m_revealed == std::vector{qs(dir() / "out.mp4")});
  m_answer = qs(dir() / "cancelled.mp4");
  model->exportVideo();
  EXPECT_FALSE(model->canExport());
  model->cancelExport();
  ASSERT_TRUE(waitUntil([&] { return model->canExport(); }));
  EXPECT_TRUE(!model->activeError() && m_revealed.size() == 1 && !fs::exists(dir() / "cancelled.mp4"));
}

}  // namespace vantrix::testing
