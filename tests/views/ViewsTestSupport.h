#pragma once

// Shared by the window tests: an editor window on the offscreen platform whose dialogs and alerts
// are recorders (no modal loop runs), a fixture video opened in it, and pointer helpers that
// deliver events through the window so that the widget under the pointer gets them, as it would
// under a real mouse.

#include "app/AppModel.h"
#include "app/FileRevealer.h"
#include "app/SaveDialog.h"
#include "views/AlertPresenter.h"
#include "views/FileDialogs.h"
#include "views/MainWindow.h"

#include "AppTestServices.h"
#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QPointF>
#include <QTemporaryDir>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace vantrix {
class TimelineView;
class SpeedChipsView;
}  // namespace vantrix

namespace vantrix::testing {

struct RecordedAlert {
  QString title;
  QString message;
};

class RecordingAlerts final : public AlertPresenter {
 public:
  std::vector<RecordedAlert> shown;
  bool isUp = false;
  void show(const QString& title, const QString& message, std::function<void()> onDismissed) override {
    shown.push_back({title, message});
    isUp = true;
    m_dismiss = std::move(onDismissed);
  }
  void close() override { isUp = false; }
  // The user presses OK.
  void dismiss() {
    isUp = false;
    if (auto call = std::exchange(m_dismiss, {})) call();
  }

 private:
  std::function<void()> m_dismiss;
};

class RecordingPicker final : public VideoPicker {
 public:
  std::optional<QString> answer;
  int asked = 0;
  std::optional<QString> chooseVideo() override {
    ++asked;
    return answer;
  }
};

class RecordingSaveDialog final : public SaveDialog {
 public:
  std::optional<QString> answer;
  int asked = 0;
  std::optional<QString> chooseDestination(const SaveRequest&) override {
    ++asked;
    return answer;
  }
};

class RecordingRevealer final : public FileRevealer {
 public:
  std::vector<QString> revealed;
  void reveal(const QString& path) override { revealed.push_back(path); }
};

// A barcoded 3-second clip, small enough to open in a blink.
FixtureSpec clipSpec();

// One editor window with recorders for its dialogs, shown on the offscreen screen at its default
// size, keeping its sessions in a folder of its own.
class Editor {
 public:
  explicit Editor(AppServices services = realServices());
  ~Editor();

  MainWindow& window() { return *m_window; }
  AppModel& model() { return m_window->model(); }
  TimelineView& strip();
  SpeedChipsView& chips();

  // Opens the file and waits until it is open for editing, its first composition is installed and
  // its strip is laid out. Fails the calling test otherwise.
  void openAndWait(const std::filesystem::path& file);

  // The strip's x of a source time and its band's middle y.
  double xFor(RationalTime t);
  double stripY();

  RecordingAlerts alerts;
  RecordingPicker picker;
  RecordingSaveDialog saveDialog;
  RecordingRevealer revealer;

 private:
  QTemporaryDir m_sessions;
  std::unique_ptr<MainWindow> m_window;
};

// Pointer input at `point` in `widget`'s coordinates, delivered through its window.
void press(QWidget* widget, QPointF point);
void moveTo(QWidget* widget, QPointF point);
void release(QWidget* widget, QPointF point);
// Press, moves in steps of a few points, release.
void drag(QWidget* widget, QPointF from, QPointF to);
void click(QWidget* widget, QPointF point);

}  // namespace vantrix::testing
