#include "AppTestSupport.h"

#include <sys/mount.h>

#include <QRegularExpression>

#include <fstream>

namespace vantrix::testing {

// Under an open video its file is deleted, cut short in place, or replaced (renamed over, as editors
// save); or the disk of the sessions and the export fills up or turns read-only. Playback (with a
// sound device or none) and stills show the opened video or nothing, the edit stands, no session is
// damaged or written for another file, the export fails and leaves no file, and after mending the
// next one saves the edit and writes the file. The disk rows need a tmpfs (see CMakeLists.txt).
TEST_F(AppModelTest, FaultsUnderAnOpenVideoLoseNoEditAndShowNoOtherVideo) {
  const fs::path other = fixture({.width = 320, .height = 240, .frameRateNum = 10, .seconds = 3, .gopFrames = 5});
  const fs::path disk = dir() / "disk", out = disk / "out.mp4";
  fs::create_directories(disk);
  const bool mounted = mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m") == 0;
  ASSERT_TRUE(mounted || qEnvironmentVariableIsEmpty("VANTRIX_MOUNTS_REQUIRED"));
  qputenv("XDG_DATA_HOME", QFile::encodeName(qs(disk / "data")));
  const auto remount = [&](unsigned long flags) { mount({}, disk.c_str(), {}, MS_REMOUNT | flags, "size=1m"); };
  const AppError failed = AppError::exportFailed(MediaError::own(MediaError::Code::internal, ""));
  const QString skipped = "^Session save skipped: the video changed on disk since it was opened\\.$";
  using Act = std::function<void(const fs::path& clip)>;
  // clang-format off
  const std::tuple<std::string, Act, Act, AppError, QString> rows[] = {  // fault, mend, export error, edit's log
      {"deleted", [](auto& v) { fs::remove(v); }, {}, failed, ""},  // nothing left to compare
      {"truncated", [](auto& v) { fs::resize_file(v, fs::file_size(v) / 2); }, {}, failed, skipped},
      {"replaced", [&](auto& v) { fs::copy_file(other, dir() / "new"), fs::rename(dir() / "new", v); }, {}, failed,
       skipped},
      {"full disk", [&](auto&) { std::ofstream(disk / "filler") << std::string(1 << 20, 'x'); },
       [&](auto&) { fs::remove(disk / "filler"); }, AppError::diskFull(), "^Session save failed: .*No space left"},
      {"read-only", [&](auto&) { remount(MS_RDONLY); }, [&](auto&) { remount(0); }, failed,
       "^Session save failed: .*is not writable"},
  };
  // clang-format on
  std::atomic<int> strips;
  AppServices services = AppServices::standard();
  services.generateThumbnails = [&, real = services.generateThumbnails](auto&&... args) { real(args...), ++strips; };
  for (const auto& [name, breakIt, mend, exportError, logLine] : rows) {
    if (mend && !mounted) continue;
    SCOPED_TRACE(name);
    strips = 0;
    const fs::path clip = copyClip(name + ".mp4");
    auto model = openModel(clip, services);
    Player& player = *model->player();
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->requestThumbnails(4, 30, 1);
    ASSERT_TRUE(waitUntil([&] { return strips == 1; }));
    const fs::path session = SessionStore().sessionFilePath(qs(clip)).toStdString();
    const auto saved = fs::last_write_time(session);
    const std::vector<QImage> stills = (runEventsFor(50), model->thumbnails());
    model->togglePlayPause();
    ASSERT_TRUE(waitUntil([&] { return model->currentTime() > ms(300); }) && !player.error());
    LogCapture log;
    breakIt(clip);
    runEventsFor(300);
    player.pause();
    model->changeSpeed(model->timeline()->segments().front().id, Speed::x8);  // and a new preview item
    EXPECT_EQ(describe(*model, false), "0-3000 500-1000x8");
    const QStringList lines = log.messages("vantrix.app") + log.messages("vantrix.persistence");
    EXPECT_TRUE(logLine.isEmpty() ? lines.isEmpty()
                                  : lines.size() == 1 && lines[0].contains(QRegularExpression(logLine)))
        << lines.join('\n').toStdString();
    EXPECT_EQ(fs::last_write_time(session), saved);

    ASSERT_TRUE(installed(*model));
    model->seek(ms(2050));  // source frame 61
    ASSERT_TRUE(waitUntil([&] {
      return player.error() || (player.currentFrame() && player.currentFrame()->sourceTime == RationalTime(61, 30));
    }));
    EXPECT_TRUE(player.error() ? log.messages("vantrix.media").join('\n').contains("Playback failed: ")
                               : readBarcode(player.currentFrame()->image) == 61);
    model->requestThumbnails(0, 30, 1);
    model->requestThumbnails(4, 30, 1);
    ASSERT_TRUE(waitUntil([&] { return strips == 2; }));
    runEventsFor(50);  // what the generator posted
    for (std::size_t i = 0; i < 4; ++i)
      EXPECT_TRUE(model->thumbnails()[i].isNull() || model->thumbnails()[i] == stills[i]);

    const auto files = std::distance(fs::directory_iterator(disk), {});
    ASSERT_TRUE(exportTo(*model, out));
    EXPECT_EQ(model->activeError(), exportError);
    EXPECT_EQ(std::distance(fs::directory_iterator(disk), {}), files);
    if (!mend) continue;
    mend(clip);
    model->dismissError();
    ASSERT_TRUE(exportTo(*model, out));
    EXPECT_TRUE(fs::exists(out) && !model->activeError());
    EXPECT_EQ(describe(*openModel(clip)), "0-3000 500-1000x8 @0");
    fs::remove(out);
  }
  umount2(disk.c_str(), MNT_DETACH);
}

// Two hours at 1 frame a second: seeks show their own frames (those outside the video park at its
// ends), and a trim deep inside exports to its exact length with the frames it holds.
TEST_F(AppModelTest, ALongVideoScrubsAndExportsATrim) {
  auto model = openModel(fixture(
      {.width = 64, .height = 48, .frameRateNum = 1, .seconds = 7200, .audio = AudioLayout::none, .gopFrames = 60}));
  for (const auto& [to, at] : {std::pair{7199500, 7199500}, {-500, 0}, {3600500, 3600500}, {9000000, 7200000}}) {
    model->seek(ms(to));
    EXPECT_EQ(model->currentTime(), ms(at));
    EXPECT_TRUE(waitUntil([&] {
      return model->player()->currentFrame() &&
             readBarcode(model->player()->currentFrame()->image) == std::min(at / 1000, 7199);
    })) << to;
  }
  model->setTrim(ms(3600000), ms(3604000));
  ASSERT_TRUE(installed(*model) && exportTo(*model, dir() / "trim.mp4"));
  EXPECT_TRUE(!model->activeError() && m_revealed == std::vector{qs(dir() / "trim.mp4")});
  const auto frames = readFrames(dir() / "trim.mp4");
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames.back().time + frames.back().duration - frames.front().time, RationalTime(4, 1));
  for (std::size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].barcode, 3600 + static_cast<std::int64_t>(i));
}

}  // namespace vantrix::testing
