// Routes the test's pointer events through the window's event handling (hit-testing, the
// implicit grab of the pressed widget), as a real mouse would.
#define QTEST_QPA_MOUSE_HANDLING

#include "ViewsTestSupport.h"

#include "views/Motion.h"

#include <QApplication>
#include <QTest>

namespace vantrix::testing {
namespace {
QPoint rounded(QPointF p) { return {static_cast<int>(std::lround(p.x())), static_cast<int>(std::lround(p.y()))}; }
}  // namespace

bool waitForWindow(QWidget& window) {
  window.show();
  return QTest::qWaitForWindowExposed(&window);
}

void press(QWidget* widget, QPointF point) { QTest::mousePress(widget, Qt::LeftButton, {}, rounded(point)); }
void moveTo(QWidget* widget, QPointF point) { QTest::mouseMove(widget, rounded(point)); }
void release(QWidget* widget, QPointF point) { QTest::mouseRelease(widget, Qt::LeftButton, {}, rounded(point)); }
void click(QWidget* widget, QPointF point) {
  press(widget, point);
  release(widget, point);
}
void drag(QWidget* widget, QPointF from, QPointF to) {
  press(widget, from);
  for (int i = 1; i <= 6; ++i) moveTo(widget, from + (to - from) * i / 6);
  release(widget, to);
}

}  // namespace vantrix::testing

// Offscreen, with animations off so that what a test checks is on screen at once.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  vantrix::Motion::setReduceMotion(true);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
