// The small parts of the window on their own: texts, colours as painted, the overlay's label,
// delete button and motion, the open dialog's filter.

#include "ViewsTestSupport.h"

#include "views/Appearance.h"
#include "views/FileDialogs.h"
#include "views/Motion.h"
#include "views/SegmentOverlayView.h"
#include "views/SpeedColours.h"
#include "views/Timecode.h"

#include <QRegularExpression>

namespace vantrix::testing {
namespace {

TEST(TimecodeTest, WholeSecondsRoundedWithHoursOnlyWhenNeeded) {
  struct Case {
    RationalTime time;
    const char* text;
  };
  for (const Case c : {Case{{0, 1}, "0:00"}, Case{{61, 1}, "1:01"}, Case{{-5, 1}, "0:00"}, Case{{-1, 2}, "0:00"},
                       Case{{119, 2}, "1:00"}, Case{{1349, 900}, "0:01"}, Case{{3599, 1}, "59:59"},
                       Case{{3600, 1}, "1:00:00"}, Case{{36000LL * 90000, 90000}, "10:00:00"}})
    EXPECT_EQ(timecodeText(c.time), c.text) << c.time.toString();
  EXPECT_EQ(editedLengthText({600, 1}, {167, 1}), "10:00 -> 2:47");
}

TEST(AppearanceTest, DarkFollowsTheWindowColour) {
  QPalette palette;
  palette.setColor(QPalette::Window, QColor(236, 236, 236));
  EXPECT_FALSE(Appearance::isDark(palette));
  palette.setColor(QPalette::Window, QColor(36, 36, 38));
  EXPECT_TRUE(Appearance::isDark(palette));
}

struct Overlay {
  QWidget strip;
  SegmentOverlayView view{&strip, &strip};
  Overlay() { strip.resize(400, 64); }
};

// Painted over black at 1:1: the body carries the fill at 0.35 (placed) or 0.18 (draft); the
// white label only on placed regions at least 28 points wide.
TEST(SegmentOverlayTest, BodyOpacityAndLabel) {
  struct Case {
    double width;
    bool draft, provisional, label;
    double opacity;  // negative: not checked
  };
  for (const Case c :
       {Case{120, false, false, true, 0.35}, Case{120, true, false, false, 0.18}, Case{27, false, false, false, 0.35},
        Case{28, false, false, true, -1}, Case{120, false, true, false, -1}}) {
    SCOPED_TRACE(::testing::Message() << c.width << " draft " << c.draft << " provisional " << c.provisional);
    Overlay overlay;
    const QColor fill = speedColour(Speed::x4, false);
    overlay.view.setFill(fill);
    overlay.view.setLabel("4x");
    overlay.view.setDraft(c.draft);
    overlay.view.setProvisional(c.provisional);
    overlay.view.setRegionRect(QRectF(50, 0, c.width, 64), false);
    QImage image(overlay.view.size(), QImage::Format_ARGB32);
    image.fill(Qt::black);
    overlay.view.render(&image, {}, {}, QWidget::DrawChildren);
    if (c.opacity >= 0) {
      const QColor body = image.pixelColor(20, 50);  // inside, clear of the label
      EXPECT_NEAR(body.red(), fill.red() * c.opacity, 1.5);
      EXPECT_NEAR(body.green(), fill.green() * c.opacity, 1.5);
      EXPECT_NEAR(body.blue(), fill.blue() * c.opacity, 1.5);
    }
    bool white = false;
    for (int y = 0; y < image.height(); ++y)
      for (int x = 0; x < image.width(); ++x) white = white || qGray(image.pixel(x, y)) > 200;
    EXPECT_EQ(white, c.label);
  }
}

TEST(SegmentOverlayTest, DeleteButtonStaysSixteenPointsInOnNarrowRegions) {
  for (const auto& [width, centreFromLeft] : {std::pair{4.0, 16.0}, {32.0, 16.0}, {100.0, 84.0}}) {
    Overlay overlay;
    overlay.view.setRegionRect(QRectF(100, 0, width, 64), false);
    overlay.view.setOnDelete([] {});
    overlay.view.setSelected(true, false);
    auto* button = overlay.view.findChild<QAbstractButton*>();
    ASSERT_NE(button, nullptr);
    EXPECT_FALSE(button->isHidden());
    const double centre = overlay.view.mapTo(&overlay.strip, button->geometry().center()).x() + 0.5;
    EXPECT_NEAR(centre, 100 + centreFromLeft, 1) << width;
  }
}

// A region moves to its new place over 0.15 s, eased in and out, or at once when motion is reduced.
TEST(SegmentOverlayTest, MovesOverAFractionOfASecondUnlessMotionIsReduced) {
  for (const bool reduce : {false, true}) {
    Overlay overlay;
    overlay.view.setReduceMotion(reduce);
    overlay.view.setRegionRect(QRectF(0, 0, 100, 64), true);
    const QRectF target(200, 0, 100, 64);
    overlay.view.setRegionRect(target, true);
    EXPECT_EQ(overlay.view.regionRect() == target, reduce) << "reduce " << reduce;
    runEventsFor(Motion::kDurationMs / 2);
    const double x = overlay.view.regionRect().x();
    EXPECT_TRUE(reduce || (x > 0 && x < 200)) << "half-way at half time";
    EXPECT_TRUE(waitUntil([&] { return overlay.view.regionRect() == target; }, 4 * Motion::kDurationMs));
  }
  const QEasingCurve curve = Motion::easeInOut();
  EXPECT_LT(curve.valueForProgress(0.1), 0.05);
  EXPECT_NEAR(curve.valueForProgress(0.5), 0.5, 0.01);
  EXPECT_GT(curve.valueForProgress(0.9), 0.95);
}

TEST(FileDialogsTest, FilterTakesTheThreeExtensionsInAnyCase) {
  const QString filter = videoNameFilter();
  ASSERT_TRUE(filter.startsWith("Videos (") && filter.endsWith(")"));
  const QStringList patterns = filter.mid(8, filter.size() - 9).split(' ');
  const auto accepted = [&](const QString& name) {
    return std::ranges::any_of(patterns, [&](const QString& p) {
      return QRegularExpression(QRegularExpression::wildcardToRegularExpression(p)).match(name).hasMatch();
    });
  };
  for (const char* name : {"clip.mov", "CLIP.MOV", "a.Mp4", "b.m4V"}) EXPECT_TRUE(accepted(name)) << name;
  for (const char* name : {"clip.avi", "clip.mov.txt", "mp4", "clip.m4a"}) EXPECT_FALSE(accepted(name)) << name;
}

}  // namespace
}  // namespace vantrix::testing
