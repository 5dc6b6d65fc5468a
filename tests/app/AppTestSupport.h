#pragma once

// Shared by the application model tests: a folder and a session folder (XDG_DATA_HOME) per test,
// fixture copies in it, an event loop to wait on, and stand-ins for the few services a test must
// steer (a load held until released, the spinner's delay fired on cue, the save dialog, the file
// browser).

#include "app/AppModel.h"
#include "app/FileRevealer.h"
#include "app/SaveDialog.h"

#include "LogCapture.h"
#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QUndoStack>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantrix::testing {

inline RationalTime ms(std::int64_t v) { return {v, 1000}; }

// Runs the GUI thread's events until `done` holds or `timeoutMs` passes; returns `done()`.
bool waitUntil(const std::function<bool()>& done, int timeoutMs = 10000);
// Runs the GUI thread's events for a while, for checks that something does NOT happen.
void runEventsFor(int milliseconds);
// Waits for a worker thread's `done`, then a little longer for what it posts, WITHOUT running the
// GUI thread's events: the posted results stay queued until the test lets them through.
bool waitHoldingEvents(const std::function<bool()>& done, int timeoutMs = 10000);

// A load that blocks until released; cancellation does not end it early, like a slow file system.
class LoadGate {
 public:
  void release();
  void wait();

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_open = false;
};

// The spinner's delay under the test's control: fire() is "the delay has passed".
class ManualDelays {
 public:
  AppServices::DelayFactory factory();
  // Runs every call that is still pending; returns how many ran.
  int fire();

 private:
  struct Call;
  std::vector<std::shared_ptr<Call>> m_calls;
};

class RecordingSaveDialog final : public SaveDialog {
 public:
  std::optional<QString> answer;
  std::vector<SaveRequest> requests;
  std::optional<QString> chooseDestination(const SaveRequest& request) override {
    requests.push_back(request);
    return answer;
  }
};

class RecordingRevealer final : public FileRevealer {
 public:
  std::vector<QString> revealed;
  void reveal(const QString& path) override { revealed.push_back(path); }
};

// A short barcoded clip with sound, the default of most tests.
FixtureSpec clipSpec();

// The real services, with the real player.
AppServices realServices();

class AppModelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A private copy of a fixture file (sessions are per path, and tests touch files).
  std::filesystem::path copyFixture(const FixtureSpec& recipe, const std::string& name) const;
  std::filesystem::path dir() const { return m_dir; }
  QString sessionDirectory() const;

  // A model on the window's undo stack.
  std::unique_ptr<AppModel> makeModel(AppServices services = realServices());
  // Opens `file` and waits until it is open for editing and its first composition is installed.
  void openAndWait(AppModel& model, const std::filesystem::path& file);

  QUndoStack m_undo;
  std::filesystem::path m_dir;
};

}  // namespace vantrix::testing
