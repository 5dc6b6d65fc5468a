// Faults from outside the program: the open video deleted, cut short or replaced under the editor,
// a full disk, a read-only session folder, no sound device, and a video hours long.

#include "AppTestSupport.h"

#include "app/SaveDialog.h"
#include "model/TimelineGeometry.h"

#include <gmock/gmock.h>

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include <sys/mount.h>

#include <atomic>
#include <cstring>
#include <fstream>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;

struct FixedSaveDialog final : SaveDialog {
  QString answer;
  std::optional<QString> chooseDestination(const SaveRequest&) override { return answer; }
};

// What happens to the open video's file. A replacement is renamed over it, as editors save; it has
// another frame rate and size, so none of its pictures can pass for the original's.
enum class Fault { deleted, truncated, replaced };
constexpr Fault kFaults[] = {Fault::deleted, Fault::truncated, Fault::replaced};
const FixtureSpec kReplacement{.width = 320, .height = 240, .frameRateNum = 10, .seconds = 3, .gopFrames = 5};
constexpr double kClipRate = 30;

const char* name(Fault f) { return f == Fault::deleted ? "deleted" : f == Fault::truncated ? "truncated" : "replaced"; }

void damage(const fs::path& video, Fault fault, const fs::path& replacement) {
  switch (fault) {
    case Fault::deleted:
      fs::remove(video);
      break;
    case Fault::truncated:  // in place: readers that hold the file open see it shrink
      fs::resize_file(video, fs::file_size(video) / 2);
      break;
    case Fault::replaced:
      fs::copy_file(replacement, video.string() + ".new", fs::copy_options::overwrite_existing);
      fs::rename(video.string() + ".new", video);
      break;
  }
}

QString qs(const fs::path& p) { return QString::fromStdString(p.string()); }

QByteArray bytesOf(const QString& file) {
  QFile f(file);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

class FaultsTest : public AppModelTest {
 protected:
  std::unique_ptr<AppModel> openModel(const fs::path& clip, AppServices services = realServices()) {
    auto model = makeModel(std::move(services));
    model->setExportInterfaces(&m_dialog, nullptr);
    openAndWait(*model, clip);
    return model;
  }
  // Starts an export to `destination` and waits for its end.
  static void exportAndWait(AppModel& model, const fs::path& destination, FixedSaveDialog& dialog) {
    dialog.answer = qs(destination);
    model.exportVideo();
    ASSERT_TRUE(waitUntil([&] { return !model.isExporting(); }, 60000));
  }
  void waitForInstalledEdit(const AppModel& model) {
    ASSERT_TRUE(waitUntil([&] { return model.compositionTimeline() == model.timeline(); }));
  }

  fs::path m_replacement = fixture(kReplacement);
  FixedSaveDialog m_dialog;
};

// Playback reads on from the file it opened; where that is gone the player stops with a logged
// failure. Either way a picture on screen is the original's.
TEST_F(FaultsTest, PlaybackShowsOnlyTheOpenedVideoOrStopsWithALoggedFailure) {
  for (Fault fault : kFaults) {
    SCOPED_TRACE(name(fault));
    const fs::path clip = copyClip();
    auto model = openModel(clip);
    Player& player = *model->player();
    model->togglePlayPause();
    ASSERT_TRUE(waitUntil([&] { return model->currentTime() > ms(300); }));
    LogCapture log;
    damage(clip, fault, m_replacement);
    runEventsFor(300);
    if (player.timeControlStatus() != Player::TimeControlStatus::paused) model->togglePlayPause();
    model->addSegment(ms(1000), ms(1500), Speed::x2);  // the player gets a new item of the same video
    waitForInstalledEdit(*model);
    model->seek(ms(2050));  // source frame 61
    const auto onFrame61 = [&] {
      return player.currentFrame() && player.currentFrame()->sourceTime == RationalTime(61, static_cast<int>(kClipRate));
    };
    ASSERT_TRUE(waitUntil([&] { return player.error() || onFrame61(); }));
    if (player.error())
      EXPECT_TRUE(log.messages("vantrix.media").join('\n').contains("Playback failed: "));
    else
      EXPECT_EQ(readBarcode(player.currentFrame()->image), 61);
    EXPECT_TRUE(model->phase().isEditing());
  }
}

// Stills made after the file changed are the original's frames or none at all.
TEST_F(FaultsTest, ThumbnailsShowOnlyTheOpenedVideo) {
  std::atomic<int> runs = 0;
  AppServices services = realServices();
  services.generateThumbnails = [&runs, real = services.generateThumbnails](auto&&... args) {
    real(args...);
    ++runs;
  };
  for (Fault fault : kFaults) {
    SCOPED_TRACE(name(fault));
    runs = 0;
    const fs::path clip = copyClip();
    auto model = openModel(clip, services);
    damage(clip, fault, m_replacement);
    model->requestThumbnails(4, 30, 1);
    ASSERT_TRUE(waitUntil([&] { return runs == 1; }));
    runEventsFor(50);  // what the generator posted
    const auto times = TimelineGeometry::sampleTimes(4, model->duration());
    for (std::size_t i = 0; i < times.size(); ++i) {
      const QImage& still = model->thumbnails()[i];
      if (still.isNull()) continue;
      const auto code = readBarcode(still);
      ASSERT_TRUE(code) << "slot " << i;
      EXPECT_NEAR(static_cast<double>(*code), times[i].seconds() * kClipRate, 1.0) << "slot " << i;
    }
  }
}

// An export whose source changes as it starts or half-way fails as exportFailed and leaves no file.
TEST_F(FaultsTest, AnExportWhoseSourceChangesFailsAndLeavesNoFile) {
  const FixtureSpec longer{.width = 160, .height = 120, .seconds = 10, .gopFrames = 15};
  std::atomic<bool> halfWay = false, damaged = false;
  fs::path clip;
  Fault fault{};
  AppServices services = realServices();
  services.exportComposition = [&, real = services.exportComposition](auto composition, const fs::path& to,
                                                                      const Exporter::ProgressCallback& progress,
                                                                      std::stop_token stop) {
    if (!halfWay) {
      damage(clip, fault, m_replacement);
      damaged = true;
    }
    return real(composition, to, [&](double fraction) {
      if (fraction >= 0.3 && !damaged.exchange(true)) damage(clip, fault, m_replacement);
      progress(fraction);
    }, stop);
  };
  for (const bool midway : {false, true}) {
    for (Fault f : kFaults) {
      SCOPED_TRACE(std::string(name(f)) + (midway ? " half-way" : " as it starts"));
      fault = f;
      halfWay = midway;
      damaged = false;
      clip = dir() / "long.mp4";
      fs::copy_file(fixture(longer), clip, fs::copy_options::overwrite_existing);
      auto model = openModel(clip, services);
      exportAndWait(*model, dir() / "out.mp4", m_dialog);
      ASSERT_TRUE(damaged);
      EXPECT_EQ(model->activeError(), AppError::exportFailed(MediaError::own(MediaError::Code::internal, "")));
      EXPECT_FALSE(fs::exists(dir() / "out.mp4"));
      for (const auto& entry : fs::directory_iterator(dir()))
        EXPECT_THAT(entry.path().filename().string(), ::testing::AnyOf("long.mp4", "data")) << "left behind";
      fs::remove(dir() / "out.mp4");
    }
  }
}

// An edit made after the file changed is not saved as a session of the file now at that path; the
// session of the opened file stays as it was.
TEST_F(FaultsTest, NoSessionIsWrittenForAnotherFile) {
  const std::pair<Fault, QStringList> rows[] = {
      {Fault::deleted, {}},  // nothing to fingerprint: skipped silently
      {Fault::truncated, {"Session save skipped: the video changed on disk since it was opened."}},
      {Fault::replaced, {"Session save skipped: the video changed on disk since it was opened."}},
  };
  for (const auto& [fault, lines] : rows) {
    SCOPED_TRACE(name(fault));
    const fs::path clip = copyClip();
    const QString session = SessionStore().sessionFilePath(qs(clip));
    QFile::remove(session);
    auto model = openModel(clip);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    const QByteArray saved = bytesOf(session);
    ASSERT_FALSE(saved.isEmpty());
    damage(clip, fault, m_replacement);
    LogCapture log;
    model->changeSpeed(model->timeline()->segments().front().id, Speed::x8);
    EXPECT_EQ(model->timeline()->segments().front().speed, Speed::x8);  // the edit stands
    EXPECT_EQ(log.messages("vantrix.app"), lines);
    EXPECT_EQ(bytesOf(session), saved);
    EXPECT_FALSE(SessionStore().loadForVideo(qs(clip)));
  }
}

// The standard services pick the system's sound device, and on a machine without one a silent
// output: playback runs on the wall clock either way.
TEST_F(FaultsTest, PlaysWithTheStandardSoundOutputWhateverTheDevice) {
  auto model = openModel(copyClip(), AppServices::standard());
  model->togglePlayPause();
  EXPECT_TRUE(waitUntil([&] { return model->currentTime() > ms(500); }));
  EXPECT_EQ(model->player()->error(), std::nullopt);
}

// Two hours at 1 frame a second: every seek shows its own frame, and a trim deep inside exports
// to its exact length with the frames it holds.
TEST_F(FaultsTest, ALongVideoScrubsAndExportsATrim) {
  const FixtureSpec recipe{.width = 64, .height = 48, .frameRateNum = 1, .seconds = 7200, .audio = AudioLayout::none,
                           .gopFrames = 60};
  const fs::path clip = dir() / "long.mp4";
  fs::copy_file(fixture(recipe), clip);
  auto model = openModel(clip);
  EXPECT_EQ(model->duration(), RationalTime(7200, 1));
  Player& player = *model->player();
  for (const std::int64_t second : {7199, 0, 3600, 1, 5432, 59, 61, 7000, 2}) {
    SCOPED_TRACE(second);
    model->seek(ms(second * 1000 + 500));
    ASSERT_TRUE(waitUntil([&] { return player.currentFrame() && player.currentFrame()->sourceTime == RationalTime(second, 1); }));
    EXPECT_EQ(readBarcode(player.currentFrame()->image), second);
  }
  model->setTrim(ms(3600000), ms(3604000));
  waitForInstalledEdit(*model);
  exportAndWait(*model, dir() / "trim.mp4", m_dialog);
  ASSERT_EQ(model->activeError(), std::nullopt);
  const auto frames = readFrames(dir() / "trim.mp4");
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames.back().time + frames.back().duration - frames.front().time, RationalTime(4, 1));
  for (std::size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].barcode, 3600 + static_cast<std::int64_t>(i));
}

// The session folder and the export's destination on a disk that fills up, or mounted read-only.
// Both are mounts, made in a user and mount namespace of their own (no root needed): the test runs
// itself again under `unshare`, and that run does the work.
TEST_F(FaultsTest, AFullDiskOrReadOnlyFolderLosesNoEdit) {
  if (qEnvironmentVariableIsEmpty("VANTRIX_IN_MOUNT_NAMESPACE")) {
    if (QProcess::execute("unshare", {"-rm", "true"}) != 0) GTEST_SKIP() << "no user namespaces here";
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    QProcess child;
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("VANTRIX_IN_MOUNT_NAMESPACE", "1");
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start("unshare", {"-rm", QCoreApplication::applicationFilePath(),
                            QStringLiteral("--gtest_filter=%1.%2").arg(test->test_suite_name(), test->name())});
    ASSERT_TRUE(child.waitForFinished(180000));
    const QString output = QString::fromLocal8Bit(child.readAll());
    EXPECT_EQ(child.exitCode(), 0) << output.toStdString();
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test") && !output.contains("SKIPPED")) << output.toStdString();
    return;
  }
  const auto fill = [](const fs::path& disk) {
    std::ofstream filler(disk / "filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), block.size()) && filler.flush()) {}
  };
  const struct {
    const char* what;
    std::function<void(const fs::path&)> prepare, breakIt, mend;
    std::optional<AppError> exportError;
    const char* osMessage;
  } rows[] = {
      {"full disk", [](const fs::path& d) { ASSERT_EQ(mount("tmpfs", d.c_str(), "tmpfs", 0, "size=1m"), 0); }, fill,
       [](const fs::path& d) { fs::remove(d / "filler"); }, AppError::diskFull(), "No space left on device"},
      {"read-only folder", [](const fs::path&) {},
       [](const fs::path& d) {
         ASSERT_EQ(mount(d.c_str(), d.c_str(), nullptr, MS_BIND, nullptr), 0);
         ASSERT_EQ(mount(nullptr, d.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
       },
       [](const fs::path& d) { umount(d.c_str()); },
       AppError::exportFailed(MediaError::own(MediaError::Code::internal, "")), "is not writable"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const fs::path disk = dir() / row.what;
    fs::create_directories(disk);
    row.prepare(disk);
    qputenv("XDG_DATA_HOME", QFile::encodeName(qs(disk / "data")));
    const fs::path clip = copyClip(std::string(row.what) + ".mp4");
    auto model = openModel(clip);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    const QString session = model->sessionStore().sessionFilePath(qs(clip));
    const QByteArray saved = bytesOf(session);
    ASSERT_FALSE(saved.isEmpty());

    row.breakIt(disk);
    LogCapture log;
    model->changeSpeed(model->timeline()->segments().front().id, Speed::x8);
    waitForInstalledEdit(*model);
    exportAndWait(*model, disk / "out.mp4", m_dialog);
    EXPECT_EQ(model->activeError(), row.exportError);
    const QStringList saves = log.messages("vantrix.persistence");
    EXPECT_EQ(saves.size(), 2) << saves.join('\n').toStdString();  // the edit's and the export's
    for (const QString& line : saves) {
      EXPECT_TRUE(line.startsWith("Session save failed: ")) << line.toStdString();
      EXPECT_TRUE(line.contains(row.osMessage)) << line.toStdString();
    }
    EXPECT_EQ(bytesOf(session), saved);
    EXPECT_FALSE(fs::exists(disk / "out.mp4"));

    row.mend(disk);  // the next export saves the edit and writes the file
    model->dismissError();
    exportAndWait(*model, disk / "out.mp4", m_dialog);
    EXPECT_EQ(model->activeError(), std::nullopt);
    EXPECT_TRUE(fs::exists(disk / "out.mp4"));
    auto reopened = openModel(clip);
    EXPECT_EQ(reopened->timeline()->segments().front().speed, Speed::x8);
    umount2(disk.c_str(), MNT_DETACH);
  }
}

}  // namespace
}  // namespace vantrix
