// The strip's children and painting, laid out from the model and the drag in progress.

#include "views/TimelineView.h"

#include "app/AppModel.h"
#include "views/Motion.h"
#include "views/ScrubFlagView.h"
#include "views/SegmentOverlayView.h"
#include "views/SpeedColours.h"
#include "views/SymbolButton.h"
#include "views/Timecode.h"
#include "views/TrimHandleView.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>

#include <algorithm>
#include <cmath>

namespace vantrix {
namespace {

constexpr double kStripCornerRadius = 6;
constexpr int kPairButtonSide = 22;
constexpr int kPairSpacing = 4;
// The colour of regions being drawn or placed: the speed they are added at.
constexpr Speed kDraftSpeed = Speed::x4;

}  // namespace

TimelineView::TimelineView(AppModel& model, QWidget* parent)
    : QWidget(parent),
      m_model(model),
      m_provisionalOverlay(new SegmentOverlayView(this, this)),
      m_pendingOverlay(new SegmentOverlayView(this, this)),
      m_trimStart(new TrimHandleView(TimelineGeometry::TrimEdge::start, this)),
      m_trimEnd(new TrimHandleView(TimelineGeometry::TrimEdge::end, this)),
      m_confirm(new SymbolButton(SymbolButton::Symbol::checkmarkCircleFill, 18, this)),
      m_discard(new SymbolButton(SymbolButton::Symbol::xmarkCircleFill, 18, this)),
      m_flag(new ScrubFlagView(this, this)) {
  setAccessibleName(QStringLiteral("Timeline"));
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

  m_provisionalOverlay->setProvisional(true);
  m_provisionalOverlay->setDraft(true);
  m_provisionalOverlay->hide();
  m_pendingOverlay->setDraft(true);
  m_pendingOverlay->setAccessibleName(QStringLiteral("Region to add"));
  m_pendingOverlay->hide();
  m_pendingOverlay->onEdgeDrag = [this](TimelineGeometry::Edge edge, double x) { pendingEdgeDragged(edge, x, false); };
  m_pendingOverlay->onEdgeDragEnded = [this](TimelineGeometry::Edge edge, double x) {
    pendingEdgeDragged(edge, x, true);
  };

  for (TrimHandleView* handle : {m_trimStart, m_trimEnd}) {
    handle->hide();
    handle->onDrag = [this, handle](double x) { trimDragged(handle->edge(), x, false); };
    handle->onDragEnded = [this, handle](double x) { trimDragged(handle->edge(), x, true); };
  }

  m_confirm->setToolTip(QStringLiteral("Add region (4x)"));
  m_confirm->setAccessibleName(QStringLiteral("Add region at 4x"));
  m_discard->setToolTip(QStringLiteral("Discard"));
  m_discard->setAccessibleName(QStringLiteral("Discard region"));
  for (SymbolButton* button : {m_confirm, m_discard}) {
    button->setFixedSize(kPairButtonSide, kPairButtonSide);
    button->hide();
  }
  connect(m_confirm, &SymbolButton::clicked, this, [this] { m_model.commitPendingRegion(Speed::x4); });
  connect(m_discard, &SymbolButton::clicked, this, [this] { m_model.cancelPendingRegion(); });

  m_pairCentre.setCurve(Motion::spring(), Motion::kSpringDurationMs);
  connect(&m_pairCentre, &Tween::valueChanged, this, &TimelineView::placePair);

  m_flag->hide();
  m_flag->onScrub = [this](double x) { scrubbed(x); };
  m_flag->onScrubEnded = [this] { m_flag->setActive(false); };

  connect(&m_model, &AppModel::timelineChanged, this, [this] {
    sync(true);
    emit liveTimelineChanged();
  });
  connect(&m_model, &AppModel::selectedSegmentIdChanged, this, [this] { syncSegments(true); });
  connect(&m_model, &AppModel::pendingRegionChanged, this, [this] {
    syncDraftRegions();
    syncPair();
    update();
  });
  connect(&m_model, &AppModel::currentTimeChanged, this, [this] { syncFlag(true); });
  connect(&m_model, &AppModel::thumbnailsChanged, this, qOverload<>(&QWidget::update));
  connect(&m_model, &AppModel::durationChanged, this, [this] { sync(false); });
  connect(&m_model, &AppModel::phaseChanged, this, [this] {
    sync(false);
    // Asked once the model has finished applying the new video: it empties the filmstrip after
    // announcing the phase.
    QMetaObject::invokeMethod(this, &TimelineView::requestThumbnails, Qt::QueuedConnection);
  });
  setReduceMotion(Motion::reduceMotion());
  sync(false);
}

TimelineView::~TimelineView() = default;

void TimelineView::setReduceMotion(bool reduce) {
  m_reduceMotion = reduce;
  for (auto& [id, overlay] : m_segmentOverlays) overlay->setReduceMotion(reduce);
  for (SegmentOverlayView* overlay : {m_provisionalOverlay, m_pendingOverlay}) overlay->setReduceMotion(reduce);
  m_trimStart->setReduceMotion(reduce);
  m_trimEnd->setReduceMotion(reduce);
  m_flag->setReduceMotion(reduce);
}

TimelineGeometry TimelineView::geometry() const { return {static_cast<double>(width()), m_model.duration()}; }

QRectF TimelineView::stripRect() const {
  return {0, kFlagRowHeight, static_cast<double>(width()), TimelineGeometry::kStripHeight};
}

int TimelineView::thumbnailCount(double width) {
  return std::max(1, static_cast<int>(std::lround(width / kThumbnailSlotWidth)));
}

QSize TimelineView::sizeHint() const {
  return {640, static_cast<int>(kFlagRowHeight + TimelineGeometry::kStripHeight)};
}

QSize TimelineView::minimumSizeHint() const {
  return {160, static_cast<int>(kFlagRowHeight + TimelineGeometry::kStripHeight)};
}

std::optional<SpeedTimeline> TimelineView::liveTimeline() const {
  std::optional<SpeedTimeline> live = m_model.timeline();
  if (!live) return live;
  if (m_liveTrim) (void)live->setTrim(m_liveTrim->start, m_liveTrim->end);
  if (m_resizingSegmentId && m_resizeRange)
    (void)live->updateSegment(*m_resizingSegmentId, m_resizeRange->start, m_resizeRange->end);
  // A region being drawn counts as it would be added once confirmed.
  if (m_provisionalRange) (void)live->addSegment(m_provisionalRange->start, m_provisionalRange->end, kDraftSpeed);
  return live;
}

QRectF TimelineView::rangeRect(RationalTime start, RationalTime end) const {
  const RectF r = geometry().rect(start, end);
  return {r.x, kFlagRowHeight + r.y, r.width, r.height};
}

void TimelineView::sync(bool animated) {
  syncSegments(animated);
  syncDraftRegions();
  syncHandles(animated);
  syncFlag(animated);
  syncPair();
  raiseLayers();
  update();
}

SegmentOverlayView* TimelineView::makeSegmentOverlay(const Uuid& id) {
  auto* overlay = new SegmentOverlayView(this, this);
  overlay->setReduceMotion(m_reduceMotion);
  overlay->onEdgeDrag = [this, id](TimelineGeometry::Edge edge, double x) { segmentEdgeDragged(id, edge, x, false); };
  overlay->onEdgeDragEnded = [this, id](TimelineGeometry::Edge edge, double x) {
    segmentEdgeDragged(id, edge, x, true);
  };
  overlay->show();
  return overlay;
}

void TimelineView::syncSegments(bool animated) {
  const auto& timeline = m_model.timeline();
  const std::vector<SpeedSegment> none;
  const std::vector<SpeedSegment>& segments = timeline ? timeline->segments() : none;

  // Overlays of segments that are gone are hidden at once and deleted later: the press that
  // removed one may still be on its way through it (its delete button).
  for (auto it = m_segmentOverlays.begin(); it != m_segmentOverlays.end();) {
    const bool kept = std::ranges::any_of(segments, [&](const SpeedSegment& s) { return s.id == it->first; });
    if (kept) {
      ++it;
      continue;
    }
    it->second->hide();
    it->second->deleteLater();
    it = m_segmentOverlays.erase(it);
  }

  bool added = false;
  for (const SpeedSegment& segment : segments) {
    auto [it, inserted] = m_segmentOverlays.try_emplace(segment.id, nullptr);
    if (inserted) {
      it->second = makeSegmentOverlay(segment.id);
      added = true;
    }
    SegmentOverlayView* overlay = it->second;
    const bool resizing = m_resizingSegmentId == segment.id && m_resizeRange;
    const QRectF rect =
        resizing ? rangeRect(m_resizeRange->start, m_resizeRange->end) : rangeRect(segment.start, segment.end);
    overlay->setRegionRect(rect, animated && !resizing);
    overlay->setFill(speedColour(segment.speed, palette()));
    overlay->setLabel(speedLabel(segment.speed));
    const bool selected = m_model.selectedSegmentId() == segment.id;
    overlay->setSelected(selected, animated);
    overlay->setOnDelete(selected ? std::function<void()>([this] { m_model.deleteSelectedSegment(); })
                                  : std::function<void()>());
  }
  if (added) raiseLayers();
}

void TimelineView::syncDraftRegions() {
  const QColor draft = speedColour(kDraftSpeed, palette());
  m_provisionalOverlay->setVisible(m_provisionalRange.has_value());
  if (m_provisionalRange) {
    m_provisionalOverlay->setFill(draft);
    m_provisionalOverlay->setRegionRect(rangeRect(m_provisionalRange->start, m_provisionalRange->end), false);
  }

  const auto& pending = m_model.pendingRegion();
  const bool placed = pending && pending->inPoint && pending->outPoint && !(*pending->inPoint == *pending->outPoint);
  m_pendingOverlay->setVisible(placed);
  if (placed) {
    m_pendingOverlay->setFill(draft);
    m_pendingOverlay->setRegionRect(
        rangeRect(std::min(*pending->inPoint, *pending->outPoint), std::max(*pending->inPoint, *pending->outPoint)),
        false);
  }
}

void TimelineView::syncHandles(bool animated) {
  const auto& timeline = m_model.timeline();
  m_trimStart->setVisible(timeline.has_value());
  m_trimEnd->setVisible(timeline.has_value());
  if (!timeline) return;
  const TimelineGeometry g = geometry();
  const RationalTime start = m_liveTrim ? m_liveTrim->start : timeline->trimStart();
  const RationalTime end = m_liveTrim ? m_liveTrim->end : timeline->trimEnd();
  const bool live = m_liveTrim.has_value();
  m_trimStart->setPosition(g.xForTime(start), kFlagRowHeight, TimelineGeometry::kStripHeight, animated && !live);
  m_trimEnd->setPosition(g.xForTime(end), kFlagRowHeight, TimelineGeometry::kStripHeight, animated && !live);
}

void TimelineView::syncFlag(bool animated) {
  const bool shows = m_model.phase().isEditing() && RationalTime::zero() < m_model.duration();
  m_flag->setVisible(shows);
  if (!shows) return;
  m_flag->setTimecode(timecodeText(m_model.currentTime()));
  m_flag->setPlacement(geometry().xForTime(m_model.currentTime()), kFlagRowHeight, TimelineGeometry::kStripHeight,
                       width(), animated);
}

void TimelineView::syncPair() {
  const auto& pending = m_model.pendingRegion();
  const bool shows = pending && pending->inPoint && pending->outPoint && !(*pending->inPoint == *pending->outPoint);
  const bool shown = m_confirm->isVisible();
  m_confirm->setVisible(shows);
  m_discard->setVisible(shows);
  if (!shows) return;
  const QRectF region =
      rangeRect(std::min(*pending->inPoint, *pending->outPoint), std::max(*pending->inPoint, *pending->outPoint));
  const double w = width();
  const double centre = w > 2 * kPairMargin ? std::clamp(region.center().x(), kPairMargin, w - kPairMargin) : w / 2;
  m_pairTop = static_cast<int>(std::lround(region.center().y() - kPairButtonSide / 2.0));
  m_pairCentre.setTarget(centre, shown && !m_reduceMotion);
  placePair();
}

void TimelineView::placePair() {
  const int left = static_cast<int>(std::lround(m_pairCentre.toDouble() - kPairButtonSide - kPairSpacing / 2.0));
  m_confirm->move(left, m_pairTop);
  m_discard->move(left + kPairButtonSide + kPairSpacing, m_pairTop);
}

void TimelineView::raiseLayers() {
  m_provisionalOverlay->raise();
  m_pendingOverlay->raise();
  m_trimStart->raise();
  m_trimEnd->raise();
  m_confirm->raise();
  m_discard->raise();
  m_flag->raise();
}

void TimelineView::requestThumbnails() {
  const auto& phase = m_model.phase();
  if (!phase.isEditing() || !isVisible() || width() <= 0) return;
  const int count = thumbnailCount(width());
  const std::pair<int, Uuid> request{count, phase.video->id};
  // The same request again would restart a filmstrip that is still filling; but the model drops
  // the slots when it applies a new video, and then they are asked for anew.
  if (m_thumbnailRequest == request && m_model.thumbnails().size() == static_cast<std::size_t>(count)) return;
  m_thumbnailRequest = request;
  const double scale = QGuiApplication::primaryScreen() ? devicePixelRatioF() : 2.0;
  m_model.requestThumbnails(count, TimelineGeometry::kStripHeight, scale);
}

void TimelineView::resizeEvent(QResizeEvent*) {
  sync(false);
  requestThumbnails();
}

void TimelineView::changeEvent(QEvent* event) {
  QWidget::changeEvent(event);
  if (event->type() == QEvent::PaletteChange) sync(false);
}

void TimelineView::showEvent(QShowEvent*) { requestThumbnails(); }

void TimelineView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  paintFilmstrip(painter);
  paintTrimShade(painter);
  paintSingleMark(painter);
}

void TimelineView::paintFilmstrip(QPainter& painter) const {
  const QRectF strip = stripRect();
  QPainterPath clip;
  clip.addRoundedRect(strip, kStripCornerRadius, kStripCornerRadius);
  painter.save();
  painter.setClipPath(clip);
  QColor empty = palette().color(QPalette::WindowText);
  empty.setAlphaF(0.1f);
  painter.fillRect(strip, empty);

  const std::vector<QImage>& thumbnails = m_model.thumbnails();
  const auto count = static_cast<double>(thumbnails.size());
  for (std::size_t i = 0; i < thumbnails.size(); ++i) {
    const QImage& image = thumbnails[i];
    if (image.isNull()) continue;
    const double left = strip.width() * static_cast<double>(i) / count;
    const double right = strip.width() * static_cast<double>(i + 1) / count;
    const QRectF slot(left, strip.top(), right - left, strip.height());
    // Fill the slot's height and crop the sides around the picture's centre.
    const double shownWidth = strip.height() * image.width() / image.height();
    const double cropped = std::max(0.0, (shownWidth - slot.width()) / shownWidth) * image.width();
    const QRectF source(cropped / 2, 0, image.width() - cropped, image.height());
    const QRectF target = shownWidth >= slot.width()
                              ? slot
                              : QRectF(slot.center().x() - shownWidth / 2, slot.top(), shownWidth, slot.height());
    painter.drawImage(target, image, source);
  }
  painter.restore();
}

void TimelineView::paintTrimShade(QPainter& painter) const {
  const auto& timeline = m_model.timeline();
  if (!timeline) return;
  const TimelineGeometry g = geometry();
  const double start = g.xForTime(m_liveTrim ? m_liveTrim->start : timeline->trimStart());
  const double end = g.xForTime(m_liveTrim ? m_liveTrim->end : timeline->trimEnd());
  const QRectF strip = stripRect();
  QPainterPath clip;
  clip.addRoundedRect(strip, kStripCornerRadius, kStripCornerRadius);
  painter.save();
  painter.setClipPath(clip);
  const QColor shade(0, 0, 0, qRound(0.55 * 255));
  painter.fillRect(QRectF(strip.left(), strip.top(), start, strip.height()), shade);
  painter.fillRect(QRectF(end, strip.top(), strip.right() - end, strip.height()), shade);
  painter.restore();
}

void TimelineView::paintSingleMark(QPainter& painter) const {
  const auto& pending = m_model.pendingRegion();
  if (!pending) return;
  // One mark alone (or two on the same instant) is a dashed line where the region will begin.
  std::optional<RationalTime> mark;
  if (pending->inPoint && !pending->outPoint) mark = pending->inPoint;
  if (pending->outPoint && !pending->inPoint) mark = pending->outPoint;
  if (pending->inPoint && pending->outPoint && *pending->inPoint == *pending->outPoint) mark = pending->inPoint;
  if (!mark) return;
  const double x = geometry().xForTime(*mark);
  QPen pen(speedColour(kDraftSpeed, palette()), 2);
  pen.setDashPattern({2, 1.5});
  painter.setPen(pen);
  const QRectF strip = stripRect();
  painter.drawLine(QPointF(x, strip.top()), QPointF(x, strip.bottom()));
}

}  // namespace vantrix
