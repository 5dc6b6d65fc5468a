#pragma once

// The app model tests' fixture: a folder and session folder (XDG_DATA_HOME) per test, clip copies,
// models on the window's undo stack with its dialogs answered, and services the test holds.

#include "app/AppModel.h"
#include "app/FileRevealer.h"
#include "app/SaveDialog.h"
#include "media/AudioOutput.h"

#include "AppTestServices.h"
#include "LogCapture.h"
#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>

namespace vantrix::testing {

namespace fs = std::filesystem;
inline RationalTime ms(std::int64_t v) { return {v, 1000}; }
inline QString qs(const fs::path& p) { return QString::fromStdString(p.string()); }

// A model's document, selection and marks, and the playhead, in ms: the trim, each segment with its
// speed (* when selected), the marks in brackets, @ the playhead: "0-3000 500-1000x2* [800-] @1200".
inline std::string describe(const AppModel& m, bool withPlayhead = true) {
  const auto t = [](std::optional<RationalTime> v) {
    return v ? std::to_string(v->convertedToTimescale(1000).value()) : "";
  };
  std::string out = t(m.timeline()->trimStart()) + "-" + t(m.timeline()->trimEnd());
  for (const SpeedSegment& s : m.timeline()->segments())
    out += " " + t(s.start) + "-" + t(s.end) + "x" + std::to_string(int(s.speed)) +
           (s.id == m.selectedSegmentId() ? "*" : "");
  if (const auto& marks = m.pendingRegion()) out += " [" + t(marks->inPoint) + "-" + t(marks->outPoint) + "]";
  return withPlayhead ? out + " @" + t(m.currentTime()) : out;
}

// While `holdLoad` is set, the load of `heldLoad` waits (then ends even if asked to stop, as on a
// slow disk); while `holdBuilds` is, preview builds wait; while `holdStrip` is, a filmstrip of
// `heldStrip` stills waits (then runs to its end, as a slow decoder would). The player runs on
// `clock`, which only the test moves.
struct Rig {
  fs::path heldLoad;
  std::size_t heldStrip = 0;
  std::atomic<bool> holdLoad = true, holdBuilds = false, holdStrip = false;
  std::atomic<int> loadsReturned = 0, loadsStopped = 0, stripsDone = 0;  // stopped: asked to stop first
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();

  AppServices services() {
    const auto waitWhile = [](const std::atomic<bool>& held) { waitUntil([&] { return !held; }, 20000, false); };
    AppServices s = realServices();
    s.loadVideo = [=, this, real = s.loadVideo](const fs::path& path, std::stop_token stop) {
      if (path == heldLoad) waitWhile(holdLoad);
      auto result = real(path, {});
      loadsStopped += stop.stop_requested(), ++loadsReturned;
      return result;
    };
    s.buildComposition = [=, this, real = s.buildComposition](const SpeedTimeline& t, const auto& asset) {
      waitWhile(holdBuilds);
      return real(t, asset);
    };
    s.generateThumbnails = [=, this, real = s.generateThumbnails](auto& asset, auto times, double height, double scale,
                                                                  std::stop_token stop, auto& sink) {
      if (times.size() == heldStrip) waitWhile(holdStrip), stop = {};
      real(asset, times, height, scale, stop, sink);
      ++stripsDone;
    };
    s.playerOptions = [clock = clock] { return Player::Options{clock, std::make_unique<NullAudioOutput>()}; };
    return s;
  }
};

class AppModelTest : public ::testing::Test, public SaveDialog, public FileRevealer {
 protected:
  void SetUp() override { qputenv("XDG_DATA_HOME", QFile::encodeName(m_tmp.filePath("data"))); }
  fs::path dir() const { return m_tmp.path().toStdString(); }
  // A private copy of the test clip: 3 s at 30 frames a second, a keyframe every 15, with sound.
  fs::path copyClip(const std::string& name = "clip.mp4") const {
    fs::copy_file(fixture({.width = 160, .height = 120, .seconds = 3, .gopFrames = 15}), dir() / name);
    return dir() / name;
  }
  std::unique_ptr<AppModel> makeModel(AppServices services = realServices(), QUndoStack* undo = nullptr) {
    auto model = std::make_unique<AppModel>(SessionStore(), std::move(services));
    model->setUndoStack(undo ? undo : &m_undo);
    model->setExportInterfaces(this, this);
    return model;
  }
  static void openAndWait(AppModel& model, const fs::path& file) {
    model.openVideo(file);
    ASSERT_TRUE(waitUntil([&] { return model.phase().kind != AppModel::Phase::Kind::loading; })) << file;
    ASSERT_TRUE(model.phase().isEditing() && waitUntil([&] { return model.composition() != nullptr; })) << file;
  }
  std::unique_ptr<AppModel> openModel(const fs::path& file, AppServices services = realServices()) {
    auto model = makeModel(std::move(services));
    openAndWait(*model, file);
    return model;
  }
  static bool installed(const AppModel& m) {
    return waitUntil([&] { return m.compositionTimeline() == m.timeline(); });
  }
  bool exportTo(AppModel& model, const fs::path& destination) {
    m_answer = qs(destination);
    model.exportVideo();
    return waitUntil([&] { return !model.isExporting() && !model.exportProgress(); }, 60000);
  }
  std::optional<QString> chooseDestination(const SaveRequest&) override { return m_answer; }
  void reveal(const QString& path) override { m_revealed.push_back(path); }

  QTemporaryDir m_tmp;
  QUndoStack m_undo;
  std::optional<QString> m_answer;
  std::vector<QString> m_revealed;
};

}  // namespace vantrix::testing
