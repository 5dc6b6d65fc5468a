// The strip's gestures on a window with a real video, each checked by what it does to the model.

#include "ViewsTestSupport.h"

#include "views/EditedLengthView.h"
#include "views/ScrubFlagView.h"

namespace vantrix::testing {
namespace {

// The filmstrip's request; then one gesture (a drag in six steps, or a click) on a fresh window holding 2x segments,
// maybe the first selected or a region waiting, and what it leaves: the pending region, the segments, the selection,
// the playhead, the trim, and the undo steps made (one per finished drag, none per move).
TEST(TimelineViewTest, GesturesOnTheStrip) {
  Editor ref;
  ref.openAndWait(fixture(clipSpec()));
  const auto pt = [&](int v) { return ref.at(ms(v)); };
  const auto t = [&](int v) { return ref.timeAt(pt(v).x()); };  // under the pointer at v ms
  const double y = pt(0).y(), top = ref.strip().stripRect().top();
  const RationalTime zero = ref.model().timeline()->trimStart(), end = ref.model().duration();
  const QPointF plate = ref.strip().findChild<ScrubFlagView*>()->labelRect().center();
  ASSERT_GT(plate.x(), 8) << "the flag's plate stands right of its line";
  // The filmstrip of a strip this wide is asked for round(width / 80) pictures, at least one.
  for (const auto& [width, pictures] : {std::pair{200, 3u}, {20, 1u}, {440, 6u}}) {
    TimelineView lone(ref.model());
    lone.resize(width, 88);
    lone.show();
    EXPECT_TRUE(waitUntil([&] { return ref.model().thumbnails().size() == pictures; }, 2000)) << width;
  }
  using Span = std::pair<RationalTime, RationalTime>;
  const Span full{zero, end};
  struct Row {
    const char* name;
    std::vector<Span> before;
    bool selectFirst;
    std::optional<PendingRegion> placed;
    QPointF from, to;
    std::optional<PendingRegion> pending;
    std::vector<Span> after;
    bool firstSelected;
    RationalTime playhead;
    Span trim;
    int steps;
  };
  const Span one{ms(1000), ms(2000)}, early{ms(500), ms(1000)}, late{ms(1500), ms(2000)};
  // clang-format off
  const std::vector<Row> rows = {
      {"a drag places a region and leaves the playhead", {}, false, {}, pt(500), pt(1500),
       PendingRegion{t(500), t(1500)}, {}, false, zero, full, 0},
      {"a leftward drag places the same region", {}, false, {}, pt(1500), pt(500),
       PendingRegion{t(500), t(1500)}, {}, false, zero, full, 0},
      {"a purely vertical movement is a click, never a region", {}, false, {},
       {pt(2000).x(), top + 2}, {pt(2000).x(), top + 62},
       {}, {}, false, t(2000), full, 0},
      {"a drag inside one segment places nothing", {one}, false, {}, pt(1200), pt(1800),
       {}, {one}, false, zero, full, 0},
      {"a drag from inside a segment begins at its end", {early}, false, {}, pt(700), pt(2500),
       PendingRegion{ms(1000), t(2500)}, {early}, false, zero, full, 0},
      {"a second drag while a region waits", {}, false, PendingRegion{ms(200), ms(600)}, pt(2200), pt(2800),
       PendingRegion{ms(200), ms(600)}, {}, false, zero, full, 0},
      {"a click on a segment selects it and leaves the playhead", {one}, false, {}, pt(1500), pt(1500),
       {}, {one}, true, zero, full, 0},
      {"a click on empty strip clears the selection and seeks there", {one}, true, {}, pt(2500), pt(2500),
       {}, {one}, false, t(2500), full, 0},
      {"an end edge drag stops at the next segment", {early, late}, false, {}, pt(1000), pt(1800),
       {}, {{ms(500), ms(1500)}, late}, false, zero, full, 1},
      {"a start edge drag follows the pointer", {one}, false, {}, pt(1000), pt(700),
       {}, {{t(700), ms(2000)}}, false, zero, full, 1},
      {"a waiting region's edge moves its mark and the playhead", {}, false, PendingRegion{ms(500), ms(1000)}, pt(1000), pt(2000),
       PendingRegion{ms(500), t(2000)}, {}, false, t(2000), full, 0},
      // Grabbed 5 points right of its line and moved 120: where it stood plus the travel. The playhead stays inside.
      {"the start trim handle moves by the drag's travel", {}, false, {}, {5, y}, {125, y},
       {}, {}, false, ref.timeAt(120), {ref.timeAt(120), end}, 1},
      {"the end trim handle stops short of the start", {}, false, {}, {ref.at(end).x() - 4, y}, {-50, y},
       {}, {}, false, zero, {zero, zero + TimelineGeometry::minimumLength(end)}, 1},
      {"the flag seeks to the pointer though grabbed beside its line", {}, false, {}, plate, {pt(2000).x(), plate.y()},
       {}, {}, false, t(2000), full, 0},
  };
  // clang-format on
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    Editor editor;
    editor.openAndWait(fixture(clipSpec()));
    AppModel& model = editor.model();
    for (const auto& [start, stop] : r.before) model.addSegment(start, stop, Speed::x2);
    std::optional<Uuid> first;
    if (!r.before.empty()) first = model.timeline()->segments().front().id;
    model.select(r.selectFirst ? first : std::nullopt);
    if (r.placed) model.placePendingRegion(*r.placed->inPoint, *r.placed->outPoint);
    const int steps = editor.window().undoStack().count();

    r.from == r.to ? click(&editor.strip(), r.from) : drag(&editor.strip(), r.from, r.to);

    EXPECT_EQ(model.pendingRegion(), r.pending);
    std::vector<Span> segments;
    for (const SpeedSegment& s : model.timeline()->segments()) segments.emplace_back(s.start, s.end);
    EXPECT_EQ(segments, r.after);
    EXPECT_EQ(model.selectedSegmentId(), r.firstSelected ? first : std::nullopt);
    EXPECT_EQ(model.currentTime(), r.playhead);
    EXPECT_EQ(Span(model.timeline()->trimStart(), model.timeline()->trimEnd()), r.trim);
    EXPECT_EQ(editor.window().undoStack().count(), steps + r.steps);
  }
}

// Discard drops the placed region; confirm adds it at 4x, selects it and marks the 4x chip; the
// edited length beside the strip follows the drag live. Chips take presses only with a selection;
// the selected region's delete button removes it.
TEST(TimelineViewTest, PlacedRegionToSegmentToNothing) {
  Editor editor;
  editor.openAndWait(fixture(clipSpec()));
  AppModel& model = editor.model();
  drag(&editor.strip(), editor.at(ms(600)), editor.at(ms(1800)));
  QAbstractButton* discard = editor.button("Discard region");
  ASSERT_NE(discard, nullptr);
  EXPECT_EQ(discard->toolTip(), "Discard");
  click(discard);
  EXPECT_FALSE(model.pendingRegion());
  EXPECT_EQ(editor.button("Add region at 4x"), nullptr);

  auto* length = editor.window().findChild<EditedLengthView*>();
  EXPECT_EQ(length->text(), "0:03 -> 0:03");
  press(&editor.strip(), editor.at(ms(500)));
  moveTo(&editor.strip(), editor.at(ms(1500)));
  moveTo(&editor.strip(), editor.at(ms(2500)));
  EXPECT_EQ(length->text(), "0:03 -> 0:02") << "a 2 s region at 4x leaves 1 s + 0.5 s, rounded";
  release(&editor.strip(), editor.at(ms(2500)));
  const PendingRegion placed = model.pendingRegion().value();
  QAbstractButton* confirm = editor.button("Add region at 4x");
  ASSERT_NE(confirm, nullptr);
  EXPECT_EQ(confirm->toolTip(), "Add region (4x)");
  click(confirm);
  ASSERT_EQ(model.timeline()->segments().size(), 1u);
  const SpeedSegment added = model.timeline()->segments().front();
  EXPECT_EQ(added.speed, Speed::x4);
  EXPECT_EQ(added.start, placed.inPoint);
  EXPECT_EQ(added.end, placed.outPoint);
  EXPECT_EQ(model.selectedSegmentId(), added.id);
  EXPECT_FALSE(model.pendingRegion());
  for (Speed speed : kAllSpeeds) EXPECT_EQ(editor.chips().chip(speed)->isChecked(), speed == Speed::x4);
  EXPECT_DOUBLE_EQ(editor.chips().rowOpacity(), 1.0);
  EXPECT_EQ(editor.window().undoAction()->text(), "Undo Add Segment");

  const auto speed = [&] { return model.timeline()->segments().front().speed; };
  SpeedChip* chip16 = editor.chips().chip(Speed::x16);
  model.select(std::nullopt);
  click(chip16);
  EXPECT_EQ(speed(), Speed::x4);
  EXPECT_DOUBLE_EQ(editor.chips().rowOpacity(), SpeedChipsView::kDimmedOpacity);
  EXPECT_EQ(editor.button("Delete segment"), nullptr);
  model.select(added.id);
  click(chip16);
  EXPECT_EQ(speed(), Speed::x16);
  EXPECT_TRUE(chip16->isChecked());
  EXPECT_FALSE(editor.chips().chip(Speed::x4)->isChecked());
  QAbstractButton* remove = editor.button("Delete segment");
  ASSERT_NE(remove, nullptr);
  EXPECT_EQ(remove->toolTip(), "Delete segment");
  click(remove);
  EXPECT_TRUE(model.timeline()->segments().empty());
  runEventsFor(10);  // the overlay goes once the press is through
  EXPECT_EQ(editor.button("Delete segment"), nullptr);
}

}  // namespace
}  // namespace vantrix::testing
