// Routes the test's pointer events through the window's event handling (hit-testing, the
// implicit grab of the pressed widget), as a real mouse would.
#define QTEST_QPA_MOUSE_HANDLING

#include "ViewsTestSupport.h"

#include "persistence/SessionStore.h"
#include "views/Motion.h"
#include "views/SpeedChipsView.h"
#include "views/TimelineView.h"

#include <QApplication>
#include <QTest>

#include <cmath>

namespace vantrix::testing {

FixtureSpec clipSpec() {
  FixtureSpec recipe;
  recipe.seconds = 3;
  recipe.width = 160;
  recipe.height = 120;
  recipe.gopFrames = 15;
  return recipe;
}

Editor::Editor(AppServices services) {
  auto model = std::make_unique<AppModel>(SessionStore(m_sessions.path()), std::move(services));
  m_window = std::make_unique<MainWindow>(std::move(model), ContentServices{&alerts, &picker, &saveDialog, &revealer});
  m_window->show();
  EXPECT_TRUE(QTest::qWaitForWindowExposed(m_window.get()));
}

Editor::~Editor() = default;

TimelineView& Editor::strip() { return *m_window->findChild<TimelineView*>(); }
SpeedChipsView& Editor::chips() { return *m_window->findChild<SpeedChipsView*>(); }

void Editor::openAndWait(const std::filesystem::path& file) {
  m_window->openFile(QString::fromStdString(file.string()));
  ASSERT_TRUE(waitUntil([&] { return model().phase().kind != AppModel::Phase::Kind::loading; })) << file;
  ASSERT_TRUE(model().phase().isEditing()) << file;
  ASSERT_TRUE(waitUntil([&] {
    return model().composition() != nullptr && strip().isVisible() && strip().width() > 100;
  })) << file;
  // Let the layout and any pending requests settle.
  runEventsFor(20);
}

double Editor::xFor(RationalTime t) { return strip().geometry().xForTime(t); }
double Editor::stripY() { return strip().stripRect().center().y(); }

namespace {

QPoint rounded(QPointF p) { return {static_cast<int>(std::lround(p.x())), static_cast<int>(std::lround(p.y()))}; }

}  // namespace

void press(QWidget* widget, QPointF point) { QTest::mousePress(widget, Qt::LeftButton, {}, rounded(point)); }
void moveTo(QWidget* widget, QPointF point) { QTest::mouseMove(widget, rounded(point)); }
void release(QWidget* widget, QPointF point) { QTest::mouseRelease(widget, Qt::LeftButton, {}, rounded(point)); }

void drag(QWidget* widget, QPointF from, QPointF to) {
  press(widget, from);
  constexpr int kSteps = 6;
  for (int i = 1; i <= kSteps; ++i) moveTo(widget, from + (to - from) * i / kSteps);
  release(widget, to);
}

void click(QWidget* widget, QPointF point) {
  press(widget, point);
  release(widget, point);
}

}  // namespace vantrix::testing

// Every test runs on the offscreen platform with animations off, so that what a test checks is
// on screen at once.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  vantrix::Motion::setReduceMotion(true);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
