// Faults from outside the program: the open video deleted, cut short or replaced under the editor,
// a full disk, a read-only session folder, no sound device, and a video hours long.

#include "AppTestSupport.h"

#include "model/TimelineGeometry.h"

#include <sys/mount.h>

#include <fstream>

namespace vantrix {
namespace {

using namespace vantrix::testing;

QByteArray bytesOf(const QString& file) {
  QFile f(file);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
const AppError kExportFailed = AppError::exportFailed(MediaError::own(MediaError::Code::internal, ""));

// The file is deleted, cut short in place (readers holding it open see it shrink), or replaced by
// renaming another video over it, as editors save; the replacement's frame rate and size differ,
// so none of its pictures can pass for the original's. Playback (with the standard services: the
// system's sound device or, without one, silence) reads on from the file it opened or stops with a
// logged failure; stills are the original's or none; an edit stands but is not saved as a session
// of the file now at that path; an export fails and leaves no file.
TEST_F(AppModelTest, AVideoChangedWhileOpenShowsOnlyItsOwnFramesAndIsSavedForNoOther) {
  const fs::path other = fixture({.width = 320, .height = 240, .frameRateNum = 10, .seconds = 3, .gopFrames = 5});
  const std::pair<std::string, std::function<void(const fs::path&)>> rows[] = {
      {"deleted", [](const fs::path& v) { fs::remove(v); }},
      {"truncated", [](const fs::path& v) { fs::resize_file(v, fs::file_size(v) / 2); }},
      {"replaced", [&](const fs::path& v) { fs::copy_file(other, dir() / "new"), fs::rename(dir() / "new", v); }},
  };
  std::atomic<int> strips = 0;
  AppServices services = AppServices::standard();
  services.generateThumbnails = [&, real = services.generateThumbnails](auto&&... args) { real(args...), ++strips; };
  for (const auto& [name, damage] : rows) {
    SCOPED_TRACE(name);
    const fs::path clip = copyClip(name + ".mp4");
    auto model = openModel(clip, services);
    Player& player = *model->player();
    model->addSegment(ms(500), ms(1000), Speed::x2);
    const QByteArray saved = bytesOf(SessionStore().sessionFilePath(qs(clip)));
    model->togglePlayPause();
    ASSERT_TRUE(waitUntil([&] { return model->currentTime() > ms(300); }));
    EXPECT_EQ(player.error(), std::nullopt);
    LogCapture log;
    damage(clip);
    runEventsFor(300);
    if (player.timeControlStatus() != Player::TimeControlStatus::paused) model->togglePlayPause();
    model->changeSpeed(model->timeline()->segments().front().id, Speed::x8);  // and a new preview item
    EXPECT_EQ(describe(*model, false), "0-3000 500-1000x8");
    const QString skipped = "Session save skipped: the video changed on disk since it was opened.";
    EXPECT_EQ(log.messages("vantrix.app"),
              name == "deleted" ? QStringList() : QStringList{skipped});  // silent: nothing to compare
    EXPECT_EQ(bytesOf(SessionStore().sessionFilePath(qs(clip))), saved);

    ASSERT_TRUE(installed(*model));
    model->seek(ms(2050));  // source frame 61
    ASSERT_TRUE(waitUntil([&] {
      return player.error() || (player.currentFrame() && player.currentFrame()->sourceTime == RationalTime(61, 30));
    }));
    EXPECT_TRUE(player.error() ? log.messages("vantrix.media").join('\n').contains("Playback failed: ")
                               : readBarcode(player.currentFrame()->image) == 61);

    strips = 0;
    model->requestThumbnails(4, 30, 1);
    ASSERT_TRUE(waitUntil([&] { return strips == 1; }));
    runEventsFor(50);  // what the generator posted
    const auto times = TimelineGeometry::sampleTimes(4, model->duration());
    for (std::size_t i = 0; i < times.size(); ++i) {
      const QImage& still = model->thumbnails()[i];
      EXPECT_TRUE(still.isNull() || std::abs(double(readBarcode(still).value_or(-9)) - times[i].seconds() * 30) <= 1)
          << i;
    }

    const auto files = std::distance(fs::directory_iterator(dir()), {});
    ASSERT_TRUE(exportTo(*model, dir() / "out.mp4"));
    EXPECT_EQ(model->activeError(), kExportFailed);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir()), {}), files);
  }
}

// The session folder and the export's destination on a disk that fills up, or mounted read-only:
// the edit stands, the session on disk stays as it was, and once the disk is mended the next
// export saves the edit and writes the file. Mounting needs a mount namespace of its own:
// CMakeLists.txt runs this test again in one, and it is skipped elsewhere.
TEST_F(AppModelTest, InAMountNamespaceAFullDiskOrReadOnlyFolderLosesNoEdit) {
  const fs::path full = dir() / "full", readOnly = dir() / "read-only";
  fs::create_directories(full), fs::create_directories(readOnly);
  if (mount("tmpfs", full.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "cannot mount here";
  using Step = std::function<void(const fs::path&)>;
  const std::tuple<fs::path, Step, Step, AppError, QString> rows[] = {
      {full, [](const fs::path& d) { std::ofstream(d / "filler") << std::string(1 << 20, 'x'); },
       [](const fs::path& d) { fs::remove(d / "filler"); }, AppError::diskFull(), "No space left on device"},
      {readOnly,
       [](const fs::path& d) {
         ASSERT_EQ(mount(d.c_str(), d.c_str(), nullptr, MS_BIND, nullptr), 0);
         ASSERT_EQ(mount(nullptr, d.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
       },
       [](const fs::path& d) { umount(d.c_str()); }, kExportFailed, "is not writable"},
  };
  for (const auto& [disk, breakIt, mend, exportError, osMessage] : rows) {
    SCOPED_TRACE(disk);
    qputenv("XDG_DATA_HOME", QFile::encodeName(qs(disk / "data")));
    const fs::path clip = copyClip(disk.filename().string() + ".mp4");
    auto model = openModel(clip);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    const QString session = SessionStore().sessionFilePath(qs(clip));
    const QByteArray saved = bytesOf(session);
    ASSERT_FALSE(saved.isEmpty());
    breakIt(disk);
    LogCapture log;
    model->changeSpeed(model->timeline()->segments().front().id, Speed::x8);
    ASSERT_TRUE(installed(*model) && exportTo(*model, disk / "out.mp4"));
    EXPECT_EQ(model->activeError(), exportError);
    const QStringList saves = log.messages("vantrix.persistence");
    EXPECT_EQ(saves.size(), 2) << saves.join('\n').toStdString();  // the edit's and the export's
    for (const QString& line : saves)
      EXPECT_TRUE(line.startsWith("Session save failed: ") && line.contains(osMessage)) << line.toStdString();
    EXPECT_EQ(bytesOf(session), saved);
    EXPECT_FALSE(fs::exists(disk / "out.mp4"));
    mend(disk);
    model->dismissError();
    ASSERT_TRUE(exportTo(*model, disk / "out.mp4"));
    EXPECT_EQ(model->activeError(), std::nullopt);
    EXPECT_TRUE(fs::exists(disk / "out.mp4"));
    EXPECT_EQ(describe(*openModel(clip)), "0-3000 500-1000x8 @0");
  }
  umount2(full.c_str(), MNT_DETACH);
}

// Two hours at 1 frame a second: seeks show their own frames, and a trim deep inside exports to
// its exact length with the frames it holds.
TEST_F(AppModelTest, ALongVideoScrubsAndExportsATrim) {
  fs::copy_file(
      fixture(
          {.width = 64, .height = 48, .frameRateNum = 1, .seconds = 7200, .audio = AudioLayout::none, .gopFrames = 60}),
      dir() / "long.mp4");
  auto model = openModel(dir() / "long.mp4");
  const Player& player = *model->player();
  for (const std::int64_t second : {7199, 0, 3600, 59, 61, 5432}) {
    model->seek(ms(second * 1000 + 500));
    EXPECT_TRUE(waitUntil([&] { return player.currentFrame() && readBarcode(player.currentFrame()->image) == second; }))
        << second;
  }
  model->setTrim(ms(3600000), ms(3604000));
  ASSERT_TRUE(installed(*model) && exportTo(*model, dir() / "trim.mp4"));
  ASSERT_EQ(model->activeError(), std::nullopt);
  const auto frames = readFrames(dir() / "trim.mp4");
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames.back().time + frames.back().duration - frames.front().time, RationalTime(4, 1));
  for (std::size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].barcode, 3600 + static_cast<std::int64_t>(i));
}

}  // namespace
}  // namespace vantrix
