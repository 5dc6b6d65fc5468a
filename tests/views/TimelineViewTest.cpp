// The strip's gestures on a window with a real video: marking, confirming, clicking, resizing,
// trimming, scrubbing and the speed chips, each checked by what it does to the model.

#include "ViewsTestSupport.h"

#include "views/EditedLengthView.h"
#include "views/ScrubFlagView.h"
#include "views/SpeedChipsView.h"
#include "views/SymbolButton.h"
#include "views/TimelineView.h"
#include "views/TrimHandleView.h"

#include <QAbstractButton>

namespace vantrix::testing {
namespace {

RationalTime ms(std::int64_t v) { return {v, 1000}; }

class TimelineViewTest : public ::testing::Test {
 protected:
  void SetUp() override { editor.openAndWait(fixture(clipSpec())); }

  TimelineView& strip() { return editor.strip(); }
  AppModel& model() { return editor.model(); }
  QPointF at(RationalTime t) { return {editor.xFor(t), editor.stripY()}; }
  // The time the strip gives a pointer at x, as the helpers deliver it (whole points).
  RationalTime timeAt(double x) { return strip().geometry().timeAtX(std::round(x)); }
  QAbstractButton* button(const QString& accessibleName) {
    for (auto* b : editor.window().findChildren<QAbstractButton*>())
      if (b->accessibleName() == accessibleName && b->isVisible()) return b;
    return nullptr;
  }
  const SpeedSegment& onlySegment() {
    EXPECT_EQ(model().timeline()->segments().size(), 1u);
    return model().timeline()->segments().front();
  }
  Uuid addSegment(RationalTime start, RationalTime end, Speed speed) {
    model().addSegment(start, end, speed);
    for (const SpeedSegment& s : model().timeline()->segments())
      if (s.start == start) return s.id;
    ADD_FAILURE() << "segment not added";
    return {};
  }

  Editor editor;
};

TEST_F(TimelineViewTest, HorizontalDragPlacesPendingRegionAndLeavesPlayhead) {
  model().seek(ms(200));
  const QPointF from = at(ms(500)), to = at(ms(1500));
  drag(&strip(), from, to);

  ASSERT_TRUE(model().pendingRegion());
  EXPECT_EQ(model().pendingRegion()->inPoint, timeAt(from.x()));
  EXPECT_EQ(model().pendingRegion()->outPoint, timeAt(to.x()));
  EXPECT_EQ(model().currentTime(), ms(200));
  EXPECT_TRUE(model().timeline()->segments().empty()) << "a placed region waits for confirmation";
  EXPECT_NE(button("Add region at 4x"), nullptr);
  EXPECT_NE(button("Discard region"), nullptr);
}

TEST_F(TimelineViewTest, LeftwardDragProposesTheSameRegion) {
  const QPointF left = at(ms(500)), right = at(ms(1500));
  drag(&strip(), right, left);
  ASSERT_TRUE(model().pendingRegion());
  EXPECT_EQ(model().pendingRegion()->inPoint, timeAt(left.x()));
  EXPECT_EQ(model().pendingRegion()->outPoint, timeAt(right.x()));
}

TEST_F(TimelineViewTest, PurelyVerticalMovementIsAClickNeverARegion) {
  const QPointF top(at(ms(2000)).x(), strip().stripRect().top() + 2);
  press(&strip(), top);
  for (int dy = 8; dy <= 60; dy += 8) moveTo(&strip(), top + QPointF(0, dy));
  release(&strip(), top + QPointF(0, 60));

  EXPECT_FALSE(model().pendingRegion());
  EXPECT_EQ(model().currentTime(), timeAt(top.x())) << "a click beside every segment seeks";
}

TEST_F(TimelineViewTest, ConfirmAddsA4xSegmentSelectsItAndMarksThe4xChip) {
  const QPointF from = at(ms(600)), to = at(ms(1800));
  drag(&strip(), from, to);
  QAbstractButton* confirm = button("Add region at 4x");
  ASSERT_NE(confirm, nullptr);
  EXPECT_EQ(confirm->toolTip(), "Add region (4x)");
  click(confirm, QRectF(confirm->rect()).center());

  const SpeedSegment& added = onlySegment();
  EXPECT_EQ(added.speed, Speed::x4);
  EXPECT_EQ(added.start, timeAt(from.x()));
  EXPECT_EQ(added.end, timeAt(to.x()));
  EXPECT_EQ(model().selectedSegmentId(), added.id);
  EXPECT_FALSE(model().pendingRegion());
  for (Speed speed : kAllSpeeds) EXPECT_EQ(editor.chips().chip(speed)->isChecked(), speed == Speed::x4);
  EXPECT_DOUBLE_EQ(editor.chips().rowOpacity(), 1.0);
}

TEST_F(TimelineViewTest, DiscardDropsThePlacedRegion) {
  drag(&strip(), at(ms(600)), at(ms(1800)));
  QAbstractButton* discard = button("Discard region");
  ASSERT_NE(discard, nullptr);
  EXPECT_EQ(discard->toolTip(), "Discard");
  click(discard, QRectF(discard->rect()).center());
  EXPECT_FALSE(model().pendingRegion());
  EXPECT_TRUE(model().timeline()->segments().empty());
  EXPECT_EQ(button("Add region at 4x"), nullptr);
}

// Drags that must not place a region, and what stays placed.
TEST_F(TimelineViewTest, DragsThatProposeNothing) {
  addSegment(ms(1000), ms(2000), Speed::x8);
  drag(&strip(), at(ms(1200)), at(ms(1800)));
  EXPECT_FALSE(model().pendingRegion()) << "a drag inside one segment";

  drag(&strip(), at(ms(200)), at(ms(600)));
  const auto placed = model().pendingRegion();
  ASSERT_TRUE(placed);
  drag(&strip(), at(ms(2200)), at(ms(2800)));
  EXPECT_EQ(model().pendingRegion(), placed) << "a second drag while a region waits";
}

TEST_F(TimelineViewTest, DragStartingInsideASegmentBeginsAtItsEnd) {
  addSegment(ms(1000), ms(1500), Speed::x2);
  const QPointF to = at(ms(2500));
  drag(&strip(), at(ms(1200)), to);
  ASSERT_TRUE(model().pendingRegion());
  EXPECT_EQ(model().pendingRegion()->inPoint, ms(1500));
  EXPECT_EQ(model().pendingRegion()->outPoint, timeAt(to.x()));
}

TEST_F(TimelineViewTest, ClickOnASegmentSelectsItWithoutMovingThePlayhead) {
  const Uuid id = addSegment(ms(1000), ms(2000), Speed::x8);
  model().seek(ms(250));
  click(&strip(), at(ms(1500)));
  EXPECT_EQ(model().selectedSegmentId(), id);
  EXPECT_EQ(model().currentTime(), ms(250));
}

TEST_F(TimelineViewTest, ClickOnEmptyStripClearsTheSelectionAndSeeksThere) {
  const Uuid id = addSegment(ms(1000), ms(2000), Speed::x8);
  model().select(id);
  const QPointF point = at(ms(2500));
  click(&strip(), point);
  EXPECT_FALSE(model().selectedSegmentId());
  EXPECT_EQ(model().currentTime(), timeAt(point.x()));
}

TEST_F(TimelineViewTest, EdgeDragResizesAndStopsAtTheNeighbour) {
  const Uuid first = addSegment(ms(500), ms(1000), Speed::x2);
  addSegment(ms(1500), ms(2000), Speed::x4);
  const int stepsBefore = editor.window().undoStack().count();

  drag(&strip(), at(ms(1000)), at(ms(1800)));
  const SpeedSegment* resized = nullptr;
  for (const SpeedSegment& s : model().timeline()->segments())
    if (s.id == first) resized = &s;
  ASSERT_NE(resized, nullptr);
  EXPECT_EQ(resized->start, ms(500));
  EXPECT_EQ(resized->end, ms(1500)) << "the end stops at the next segment's start";
  EXPECT_EQ(resized->speed, Speed::x2);
  EXPECT_EQ(editor.window().undoStack().count(), stepsBefore + 1);
  EXPECT_EQ(editor.window().undoAction()->text(), "Undo Resize Segment");
  EXPECT_FALSE(model().pendingRegion()) << "an edge drag is no marking drag";
}

TEST_F(TimelineViewTest, StartEdgeDragFollowsThePointer) {
  const Uuid id = addSegment(ms(1000), ms(2000), Speed::x2);
  const QPointF to = at(ms(700));
  drag(&strip(), at(ms(1000)), to);
  const SpeedSegment& s = onlySegment();
  EXPECT_EQ(s.id, id);
  EXPECT_EQ(s.start, timeAt(to.x()));
  EXPECT_EQ(s.end, ms(2000));
}

TEST_F(TimelineViewTest, TrimHandleReportsWhereItStoodPlusTheTravelNotThePointer) {
  TrimHandleView* handle = nullptr;
  for (auto* h : strip().findChildren<TrimHandleView*>())
    if (h->edge() == TimelineGeometry::TrimEdge::start) handle = h;
  ASSERT_NE(handle, nullptr);
  ASSERT_DOUBLE_EQ(handle->x(), 0.0);
  // Grabbed 5 points right of its line and moved 120 points right.
  const QPointF grab(5, editor.stripY());
  const QPointF end = grab + QPointF(120, 0);
  drag(&strip(), grab, end);

  EXPECT_EQ(model().timeline()->trimStart(), strip().geometry().timeAtX(120));
  EXPECT_NE(model().timeline()->trimStart(), strip().geometry().timeAtX(125));
  EXPECT_EQ(editor.window().undoAction()->text(), "Undo Trim");
  EXPECT_NEAR(handle->x(), 120, 0.5);
}

TEST_F(TimelineViewTest, EndTrimHandleCannotCrossTheStart) {
  TrimHandleView* handle = nullptr;
  for (auto* h : strip().findChildren<TrimHandleView*>())
    if (h->edge() == TimelineGeometry::TrimEdge::end) handle = h;
  ASSERT_NE(handle, nullptr);
  const QPointF grab(handle->x() - 4, editor.stripY());
  drag(&strip(), grab, QPointF(-50, editor.stripY()));
  const auto& timeline = *model().timeline();
  EXPECT_EQ(timeline.trimEnd(), timeline.trimStart() + TimelineGeometry::minimumLength(model().duration()));
}

TEST_F(TimelineViewTest, LengthBesideTheStripFollowsTheDragLive) {
  auto* length = editor.window().findChild<EditedLengthView*>();
  ASSERT_NE(length, nullptr);
  EXPECT_EQ(length->text(), "0:03 -> 0:03");
  // A 2 s region at 4x leaves 1 s + 0.5 s, shown rounded.
  press(&strip(), at(ms(500)));
  moveTo(&strip(), at(ms(1500)));
  moveTo(&strip(), at(ms(2500)));
  EXPECT_EQ(length->text(), "0:03 -> 0:02") << "while the region is dragged";
  release(&strip(), at(ms(2500)));
  click(button("Add region at 4x"), {5, 5});
  EXPECT_EQ(length->text(), "0:03 -> 0:02");
}

TEST_F(TimelineViewTest, FlagScrubsToThePointerEvenWhenGrabbedBesideTheLine) {
  auto* flag = strip().findChild<ScrubFlagView*>();
  ASSERT_NE(flag, nullptr);
  ASSERT_DOUBLE_EQ(flag->x(), 0.0);
  // The timecode plate stands right of the line at the strip's start.
  const QPointF plate = flag->labelRect().center();
  ASSERT_GT(plate.x(), 8);
  press(&strip(), plate);
  EXPECT_EQ(model().currentTime(), timeAt(plate.x()));
  const QPointF later(at(ms(2000)).x(), plate.y());
  moveTo(&strip(), later);
  EXPECT_EQ(model().currentTime(), timeAt(later.x()));
  release(&strip(), later);
  EXPECT_EQ(flag->timecode(), "0:02");
  EXPECT_FALSE(model().pendingRegion());
}

TEST_F(TimelineViewTest, PendingRegionEdgeMovesItsMarkAndThePlayhead) {
  drag(&strip(), at(ms(500)), at(ms(1000)));
  const RationalTime in = *model().pendingRegion()->inPoint;
  const QPointF to = at(ms(2000));
  drag(&strip(), at(ms(1000)), to);
  ASSERT_TRUE(model().pendingRegion());
  EXPECT_EQ(model().pendingRegion()->inPoint, in);
  EXPECT_EQ(model().pendingRegion()->outPoint, timeAt(to.x()));
  EXPECT_EQ(model().currentTime(), timeAt(to.x()));
}

TEST_F(TimelineViewTest, ChipsChangeTheSelectedSegmentsSpeed) {
  const Uuid id = addSegment(ms(1000), ms(2000), Speed::x4);
  SpeedChip* chip16 = editor.chips().chip(Speed::x16);
  click(chip16, QRectF(chip16->rect()).center());
  EXPECT_EQ(onlySegment().speed, Speed::x4) << "no selection: the chips take no presses";
  EXPECT_DOUBLE_EQ(editor.chips().rowOpacity(), SpeedChipsView::kDimmedOpacity);

  model().select(id);
  click(chip16, QRectF(chip16->rect()).center());
  EXPECT_EQ(onlySegment().speed, Speed::x16);
  EXPECT_TRUE(chip16->isChecked());
  EXPECT_FALSE(editor.chips().chip(Speed::x4)->isChecked());
  EXPECT_EQ(editor.window().undoAction()->text(), "Undo Change Speed");
}

TEST_F(TimelineViewTest, DeleteButtonOnTheSelectedSegmentRemovesIt) {
  EXPECT_EQ(button("Delete segment"), nullptr);
  const Uuid id = addSegment(ms(1000), ms(2000), Speed::x4);
  model().select(id);
  QAbstractButton* remove = button("Delete segment");
  ASSERT_NE(remove, nullptr);
  EXPECT_EQ(remove->toolTip(), "Delete segment");
  click(remove, QRectF(remove->rect()).center());
  EXPECT_TRUE(model().timeline()->segments().empty());
  runEventsFor(10);  // the overlay goes once the press is through
  EXPECT_EQ(button("Delete segment"), nullptr);
}

// The filmstrip is asked for round(width / 80) pictures, at least one.
TEST_F(TimelineViewTest, ThumbnailCountFollowsTheStripWidth) {
  struct Case {
    int width;
    std::size_t pictures;
  };
  for (const Case c : {Case{200, 3}, Case{20, 1}, Case{440, 6}}) {
    TimelineView lone(model());
    lone.resize(c.width, 88);
    lone.show();
    EXPECT_TRUE(waitUntil([&] { return model().thumbnails().size() == c.pictures; }, 2000))
        << c.width << " points gave " << model().thumbnails().size();
  }
}

}  // namespace
}  // namespace vantrix::testing
