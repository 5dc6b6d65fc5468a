// The small parts of the window on their own: texts, colours as painted, the overlay's label and
// delete button, the trim grip's side, the open dialog's filter.

#include "ViewsTestSupport.h"

#include "views/Appearance.h"
#include "views/FileDialogs.h"
#include "views/Motion.h"
#include "views/SegmentOverlayView.h"
#include "views/SpeedColours.h"
#include "views/Timecode.h"
#include "views/TrimHandleView.h"

#include <QAbstractButton>
#include <QPainter>
#include <QRegularExpression>

namespace vantrix::testing {
namespace {

TEST(TimecodeTest, WholeSecondsRoundedWithHoursOnlyWhenNeeded) {
  struct Case {
    RationalTime time;
    const char* text;
  };
  for (const Case c : {Case{{0, 1}, "0:00"}, Case{{61, 1}, "1:01"}, Case{{3661, 1}, "1:01:01"}, Case{{-5, 1}, "0:00"},
                       Case{{119, 2}, "1:00"}, Case{{3599, 1}, "59:59"}, Case{{3600, 1}, "1:00:00"},
                       Case{{1349, 900}, "0:01"}, Case{{-1, 2}, "0:00"}, Case{{36000LL * 90000, 90000}, "10:00:00"}})
    EXPECT_EQ(timecodeText(c.time), c.text) << c.time.toString();
  EXPECT_EQ(editedLengthText({600, 1}, {167, 1}), "10:00 -> 2:47");
}

TEST(AppearanceTest, DarkFollowsTheWindowColour) {
  QPalette palette;
  palette.setColor(QPalette::Window, QColor(236, 236, 236));
  EXPECT_FALSE(Appearance::isDark(palette));
  palette.setColor(QPalette::Window, QColor(36, 36, 38));
  EXPECT_TRUE(Appearance::isDark(palette));
  // The colours warm towards red in both appearances; the darkest speed of the dark appearance
  // borrows the light appearance's x8.
  EXPECT_EQ(speedColour(Speed::x16, true), speedColour(Speed::x8, false));
}

// Painted over black at 1:1, the region's middle carries its colour at the body's opacity.
TEST(SegmentOverlayTest, BodyOpacityForPlacedAndDraftRegions) {
  struct Case {
    bool draft;
    double opacity;
  };
  for (const Case c : {Case{false, 0.35}, Case{true, 0.18}}) {
    QWidget strip;
    strip.resize(300, 64);
    SegmentOverlayView overlay(&strip, &strip);
    overlay.setFill(speedColour(Speed::x4, false));
    overlay.setDraft(c.draft);
    overlay.setRegionRect(QRectF(50, 0, 120, 64), false);
    QImage image(overlay.size(), QImage::Format_ARGB32);
    image.fill(Qt::black);
    overlay.render(&image, {}, {}, QWidget::DrawChildren);
    const QColor middle = image.pixelColor(20, 50);  // inside, clear of the label
    const QColor fill = speedColour(Speed::x4, false);
    EXPECT_NEAR(middle.red(), fill.red() * c.opacity, 1.5);
    EXPECT_NEAR(middle.green(), fill.green() * c.opacity, 1.5);
    EXPECT_NEAR(middle.blue(), fill.blue() * c.opacity, 1.5);
  }
}

int whitePixels(SegmentOverlayView& overlay) {
  QImage image(overlay.size(), QImage::Format_ARGB32);
  image.fill(Qt::black);
  overlay.render(&image, {}, {}, QWidget::DrawChildren);
  int count = 0;
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x)
      if (qGray(image.pixel(x, y)) > 200) ++count;
  return count;
}

TEST(SegmentOverlayTest, LabelOnlyOnPlacedRegionsAtLeast28PointsWide) {
  struct Case {
    double width;
    bool draft;
    bool provisional;
    bool label;
  };
  for (const Case c : {Case{27, false, false, false}, Case{28, false, false, true}, Case{120, true, false, false},
                       Case{120, false, true, false}}) {
    QWidget strip;
    strip.resize(300, 64);
    SegmentOverlayView overlay(&strip, &strip);
    overlay.setFill(speedColour(Speed::x2, false));
    overlay.setLabel("2x");
    overlay.setDraft(c.draft);
    overlay.setProvisional(c.provisional);
    overlay.setRegionRect(QRectF(40, 0, c.width, 64), false);
    EXPECT_EQ(whitePixels(overlay) > 0, c.label) << c.width << " draft " << c.draft << " provisional " << c.provisional;
  }
}

TEST(SegmentOverlayTest, DeleteButtonStaysSixteenPointsInOnNarrowRegions) {
  struct Case {
    double width;
    double centreFromLeft;
  };
  for (const Case c : {Case{4, 16}, Case{32, 16}, Case{100, 84}}) {
    QWidget strip;
    strip.resize(400, 64);
    SegmentOverlayView overlay(&strip, &strip);
    overlay.setRegionRect(QRectF(100, 0, c.width, 64), false);
    overlay.setOnDelete([] {});
    overlay.setSelected(true, false);
    auto* button = overlay.findChild<QAbstractButton*>();
    ASSERT_NE(button, nullptr);
    EXPECT_FALSE(button->isHidden());
    const double centre = overlay.mapTo(&strip, button->geometry().center()).x() + 0.5;
    EXPECT_NEAR(centre, 100 + c.centreFromLeft, 1) << c.width;
  }
}

// Each grip lies inside the kept range: right of the start handle's line, left of the end's.
TEST(TrimHandleTest, GripLiesInsideTheKeptRange) {
  for (const auto edge : {TimelineGeometry::TrimEdge::start, TimelineGeometry::TrimEdge::end}) {
    QWidget strip;
    strip.resize(200, 64);
    TrimHandleView handle(edge, &strip);
    handle.setPosition(100, 0, 64, false);
    QImage image(strip.size(), QImage::Format_ARGB32);
    image.fill(Qt::white);
    strip.render(&image);
    const QColor accent = Appearance::accent(strip.palette());
    int left = 0, right = 0;
    for (int x = 90; x < 110; ++x)
      if (image.pixelColor(x, 32) == accent || image.pixelColor(x, 1) == accent) (x < 100 ? left : right)++;
    if (edge == TimelineGeometry::TrimEdge::start) {
      EXPECT_EQ(left, 0);
      EXPECT_GT(right, 0);
    } else {
      EXPECT_GT(left, 0);
      EXPECT_EQ(right, 0);
    }
  }
}

// A region moves to its new place over 0.15 s, or at once when motion is reduced.
TEST(SegmentOverlayTest, MovesOverAFractionOfASecondUnlessMotionIsReduced) {
  for (const bool reduce : {false, true}) {
    QWidget strip;
    strip.resize(400, 64);
    SegmentOverlayView overlay(&strip, &strip);
    overlay.setReduceMotion(reduce);
    overlay.setRegionRect(QRectF(0, 0, 100, 64), true);
    const QRectF target(200, 0, 100, 64);
    overlay.setRegionRect(target, true);
    EXPECT_EQ(overlay.regionRect() == target, reduce) << "reduce " << reduce;
    runEventsFor(Motion::kDurationMs / 2);
    if (!reduce) {
      EXPECT_GT(overlay.regionRect().x(), 0);
      EXPECT_LT(overlay.regionRect().x(), 200);
    }
    EXPECT_TRUE(waitUntil([&] { return overlay.regionRect() == target; }, 4 * Motion::kDurationMs));
  }
}

TEST(MotionTest, TheEnvironmentDecidesBeforeTheDesktop) {
  const QByteArray saved = qgetenv("VANTRIX_REDUCE_MOTION");
  qputenv("VANTRIX_REDUCE_MOTION", "1");
  EXPECT_TRUE(Motion::readDesktopSetting());
  qputenv("VANTRIX_REDUCE_MOTION", "0");
  EXPECT_FALSE(Motion::readDesktopSetting());
  qputenv("VANTRIX_REDUCE_MOTION", saved);
  // The curve eases in and out: slow at both ends, half-way at half time.
  const QEasingCurve curve = Motion::easeInOut();
  EXPECT_LT(curve.valueForProgress(0.1), 0.05);
  EXPECT_NEAR(curve.valueForProgress(0.5), 0.5, 0.01);
  EXPECT_GT(curve.valueForProgress(0.9), 0.95);
}

TEST(FileDialogsTest, FilterTakesTheThreeExtensionsInAnyCase) {
  const QString filter = videoNameFilter();
  ASSERT_TRUE(filter.startsWith("Videos ("));
  const QStringList patterns = filter.mid(8, filter.size() - 9).split(' ');
  const auto accepted = [&](const QString& name) {
    return std::ranges::any_of(patterns, [&](const QString& p) {
      return QRegularExpression(QRegularExpression::wildcardToRegularExpression(p)).match(name).hasMatch();
    });
  };
  for (const char* name : {"clip.mov", "CLIP.MOV", "a.Mp4", "b.m4V", "holiday.MP4"})
    EXPECT_TRUE(accepted(name)) << name;
  for (const char* name : {"clip.avi", "clip.mov.txt", "mp4", "clip.mkv", "clip.m4a"})
    EXPECT_FALSE(accepted(name)) << name;
}

}  // namespace
}  // namespace vantrix::testing
