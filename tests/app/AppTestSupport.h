#pragma once

// The application model tests' fixture: a folder and a session folder (XDG_DATA_HOME) per test,
// copies of the test clip, models on the window's undo stack, and the export's dialogs answered.

#include "app/AppModel.h"
#include "app/FileRevealer.h"
#include "app/SaveDialog.h"
#include "media/AudioOutput.h"

#include "AppTestServices.h"
#include "LogCapture.h"
#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <future>
#include <map>

namespace vantrix::testing {

namespace fs = std::filesystem;
inline RationalTime ms(std::int64_t v) { return {v, 1000}; }
inline QString qs(const fs::path& p) { return QString::fromStdString(p.string()); }

// A model's document, selection and marks, and the playhead, in ms: the trim, each segment with its
// speed (* when selected), the marks in brackets and @ the playhead, as in "0-3000 500-1000x2* [800-] @1200".
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

// Holds a worker until released (at most 20 s); cancellation does not end the wait, as with a slow disk.
struct LoadGate {
  std::promise<void> promise;
  std::shared_future<void> released = promise.get_future().share();
  void release() { promise.set_value(); }
  void wait() const { released.wait_for(std::chrono::seconds(20)); }
};

// Services whose slow steps wait for the test: loads of the files in `heldLoads` (which then finish
// even when asked to stop) and, while `holdBuilds` is set, composition builds, which fail while
// `failBuilds` is set. The spinner's delay passes when the test fires it, and the player runs on
// `clock`, which moves only when the test moves it.
struct Rig {
  struct Held : LoadGate {
    std::atomic<int> returned = 0;  // 1: returned, 2: returned after it was asked to stop
  };
  struct Delay final : DelayedCall {
    std::shared_ptr<bool> off = std::make_shared<bool>(false);
    void cancel() override { *off = true; }
    ~Delay() override { *off = true; }
  };
  std::map<fs::path, std::shared_ptr<Held>> heldLoads;
  LoadGate builds;
  std::atomic<bool> holdBuilds = false, failBuilds = false;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::function<void()> fireSpinner;

  AppServices services() {
    AppServices s = realServices();
    s.loadVideo = [this, real = s.loadVideo](const fs::path& path, std::stop_token stop) {
      const auto held = heldLoads.contains(path) ? heldLoads.at(path) : nullptr;
      if (held) held->wait();
      auto result = real(path, {});
      if (held) held->returned = stop.stop_requested() ? 2 : 1;
      return result;
    };
    s.buildComposition = [this, real = s.buildComposition](const SpeedTimeline& t, const auto& asset) {
      if (holdBuilds) builds.wait();
      return failBuilds ? std::unexpected(AppError::compositionFailed()) : real(t, asset);
    };
    s.startDelay = [this](std::chrono::milliseconds delay, std::function<void()> fn) {
      EXPECT_EQ(delay, std::chrono::milliseconds(180));
      auto handle = std::make_unique<Delay>();
      fireSpinner = [fn, off = handle->off] {
        if (!*off) fn();
      };
      return handle;
    };
    s.playerOptions = [clock = clock] { return Player::Options{clock, std::make_unique<NullAudioOutput>()}; };
    return s;
  }
};

class AppModelTest : public ::testing::Test, public SaveDialog, public FileRevealer {
 protected:
  void SetUp() override { qputenv("XDG_DATA_HOME", QFile::encodeName(m_tmp.filePath("data"))); }
  void TearDown() override { m_undo.clear(); }
  fs::path dir() const { return m_tmp.path().toStdString(); }
  // A private copy of the test clip, 3 s at 30 frames a second with sound (sessions are per path).
  fs::path copyClip(const std::string& name = "clip.mp4") const {
    fs::copy_file(fixture({.width = 160, .height = 120, .seconds = 3, .gopFrames = 15}), dir() / name,
                  fs::copy_options::overwrite_existing);
    return dir() / name;
  }
  std::unique_ptr<AppModel> makeModel(AppServices services = realServices()) {
    auto model = std::make_unique<AppModel>(SessionStore(), std::move(services));
    model->setUndoStack(&m_undo);
    model->setExportInterfaces(this, this);
    return model;
  }
  // Opens `file` and waits until it is open for editing and its first composition is installed.
  static void openAndWait(AppModel& model, const fs::path& file) {
    model.openVideo(file);
    ASSERT_TRUE(waitUntil([&] { return model.phase().kind != AppModel::Phase::Kind::loading; })) << file;
    ASSERT_TRUE(model.phase().isEditing()) << (model.activeError() ? model.activeError()->description() : "");
    ASSERT_TRUE(waitUntil([&] { return model.composition() != nullptr; })) << file;
  }
  std::unique_ptr<AppModel> openModel(const fs::path& file, AppServices services = realServices()) {
    auto model = makeModel(std::move(services));
    openAndWait(*model, file);
    return model;
  }
  // Waits until the preview of the current timeline is installed.
  static bool installed(const AppModel& m) {
    return waitUntil([&] { return m.compositionTimeline() == m.timeline(); });
  }
  // Exports to `destination` through the save dialog and waits for the export's end.
  bool exportTo(AppModel& model, const fs::path& destination) {
    m_answer = qs(destination);
    model.exportVideo();
    return waitUntil([&] { return !model.isExporting() && !model.exportProgress(); }, 60000);
  }
  // The window's save dialog, answering m_answer, and its file browser.
  std::optional<QString> chooseDestination(const SaveRequest& request) override {
    m_requests.push_back(request);
    return m_answer;
  }
  void reveal(const QString& path) override { m_revealed.push_back(path); }

  QTemporaryDir m_tmp;
  QUndoStack m_undo;
  std::optional<QString> m_answer;
  std::vector<SaveRequest> m_requests;
  std::vector<QString> m_revealed;
};

}  // namespace vantrix::testing
