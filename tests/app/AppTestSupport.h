#pragma once

// Shared by the application model tests: a folder and a session folder (XDG_DATA_HOME) per test,
// copies of the test clip in it, and ways to wait on the event loop and to hold a worker.

#include "app/AppModel.h"

#include "AppTestServices.h"

#include "LogCapture.h"
#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <QUndoStack>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>

namespace vantrix::testing {

inline RationalTime ms(std::int64_t v) { return {v, 1000}; }

// Holds a worker until released; cancellation does not end the wait, as with a slow file system.
// Bounded, so that a failed test that never releases it still ends.
class LoadGate {
 public:
  void release() { m_promise.set_value(); }
  void wait() const { m_released.wait_for(std::chrono::seconds(20)); }

 private:
  std::promise<void> m_promise;
  std::shared_future<void> m_released = m_promise.get_future().share();
};

class AppModelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override { m_undo.clear(); }

  // A private copy of the test clip, 3 s at 30 frames a second with sound (sessions are per path,
  // and tests touch files).
  std::filesystem::path copyClip(const std::string& name = "clip.mp4") const;
  std::filesystem::path dir() const { return m_dir; }
  // A model on the window's undo stack.
  std::unique_ptr<AppModel> makeModel(AppServices services = realServices());
  // Opens `file` and waits until it is open for editing and its first composition is installed.
  void openAndWait(AppModel& model, const std::filesystem::path& file);

  QTemporaryDir m_tmp;
  QUndoStack m_undo;
  std::filesystem::path m_dir;
};

}  // namespace vantrix::testing
