#pragma once

// An editor window on the offscreen platform whose dialogs, alerts and file revealer are this object's
// recorders (no modal loop runs); pointer input delivered through the window, as a real mouse's is.

#include "app/AppModel.h"
#include "app/FileRevealer.h"
#include "app/SaveDialog.h"
#include "views/AlertPresenter.h"
#include "views/FileDialogs.h"
#include "views/MainWindow.h"
#include "views/SpeedChipsView.h"
#include "views/TimelineView.h"

#include "AppTestServices.h"
#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QTemporaryDir>

#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <vector>

namespace vantrix {
inline void PrintTo(RationalTime t, std::ostream* os) { *os << t.toString(); }
}  // namespace vantrix

namespace vantrix::testing {

inline RationalTime ms(std::int64_t v) { return {v, 1000}; }

// A barcoded 3-second clip, small enough to open in a blink.
inline FixtureSpec clipSpec(Container container = Container::mp4) {
  FixtureSpec recipe;
  recipe.container = container;
  recipe.seconds = 3;
  recipe.width = 160;
  recipe.height = 120;
  recipe.gopFrames = 15;
  return recipe;
}

bool waitForWindow(QWidget& window);

class Editor final : AlertPresenter, VideoPicker, SaveDialog, FileRevealer {
 public:
  explicit Editor(AppServices services = realServices()) {
    auto model = std::make_unique<AppModel>(SessionStore(m_sessions.path()), std::move(services));
    m_window = std::make_unique<MainWindow>(std::move(model), ContentServices{this, this, this, this});
    EXPECT_TRUE(waitForWindow(*m_window));
  }

  MainWindow& window() { return *m_window; }
  AppModel& model() { return m_window->model(); }
  TimelineView& strip() { return *m_window->findChild<TimelineView*>(); }
  SpeedChipsView& chips() { return *m_window->findChild<SpeedChipsView*>(); }

  // Opens the file (unless already asked to); waits for its composition and strip, else fails the test.
  void openAndWait(const std::filesystem::path& file = {}) {
    if (!file.empty()) m_window->openFile(QString::fromStdString(file.string()));
    ASSERT_TRUE(waitUntil([&] { return model().phase().kind != AppModel::Phase::Kind::loading; })) << file;
    ASSERT_TRUE(model().phase().isEditing()) << file;
    ASSERT_TRUE(waitUntil([&] { return model().composition() && strip().isVisible() && strip().width() > 100; }));
    runEventsFor(20);  // the layout and pending requests settle
  }

  // The strip's point for a source time (the band's middle); the time of a pointer at x as delivered (whole points).
  QPointF at(RationalTime t) { return {strip().geometry().xForTime(t), strip().stripRect().center().y()}; }
  RationalTime timeAt(double x) { return strip().geometry().timeAtX(std::round(x)); }

  QAbstractButton* button(const QString& accessibleName) {
    for (auto* b : m_window->findChildren<QAbstractButton*>())
      if (b->accessibleName() == accessibleName && b->isVisible()) return b;
    return nullptr;
  }

  std::vector<std::pair<QString, QString>> alerts;  // title, message
  void dismissAlert() {                             // the user presses OK
    if (auto call = std::exchange(m_dismiss, {})) call();
  }
  std::optional<QString> pickerAnswer, saveAnswer;
  int pickerAsked = 0;
  std::vector<QString> revealed;

 private:
  void show(const QString& title, const QString& message, std::function<void()> onDismissed) override {
    alerts.push_back({title, message});
    m_dismiss = std::move(onDismissed);
  }
  void close() override {}
  std::optional<QString> chooseVideo() override { return ++pickerAsked, pickerAnswer; }
  std::optional<QString> chooseDestination(const SaveRequest&) override { return saveAnswer; }
  void reveal(const QString& path) override { revealed.push_back(path); }

  std::function<void()> m_dismiss;
  QTemporaryDir m_sessions;
  std::unique_ptr<MainWindow> m_window;
};

// Pointer input at `point` in `widget`'s coordinates; drag() moves in six steps.
void press(QWidget* widget, QPointF point);
void moveTo(QWidget* widget, QPointF point);
void release(QWidget* widget, QPointF point);
void drag(QWidget* widget, QPointF from, QPointF to);
void click(QWidget* widget, QPointF point);
inline void click(QWidget* widget) { click(widget, QRectF(widget->rect()).center()); }

}  // namespace vantrix::testing
