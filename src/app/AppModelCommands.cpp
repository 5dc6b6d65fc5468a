// The editing commands: checked edits on a copy of the timeline, one undo step each, the marks of
// a pending region, and the session save that follows every change.

#include "app/AppLog.h"
#include "app/AppModel.h"
#include "app/TimelineSnapshotCommand.h"

#include <QFile>

#include <algorithm>

namespace vantrix {
namespace {

const QString kAddSegment = QStringLiteral("Add Segment");
const QString kResizeSegment = QStringLiteral("Resize Segment");
const QString kTrim = QStringLiteral("Trim");
const QString kChangeSpeed = QStringLiteral("Change Speed");
const QString kDeleteSegment = QStringLiteral("Delete Segment");

bool hasSegment(const SpeedTimeline& timeline, const Uuid& id) {
  return std::ranges::any_of(timeline.segments(), [&](const SpeedSegment& s) { return s.id == id; });
}

RationalTime clamped(RationalTime t, RationalTime low, RationalTime high) { return std::max(std::min(t, high), low); }

}  // namespace

// `edit` applies the change to the copy it is given and returns the timeline's verdict; with a
// refusal nothing changes: no undo step, no save, no rebuild.
template <class Edit>
void AppModel::applyEdit(const char* command, const QString& actionName, Edit edit) {
  if (!m_timeline) return;
  SpeedTimeline edited = *m_timeline;
  if (auto applied = edit(edited); !applied) {
    qCCritical(lcApp, "%s rejected by domain (should be unreachable): %s", command,
               std::string(toString(applied.error())).c_str());
    return;
  }
  commitEdit(*m_timeline, std::move(edited), actionName);
}

void AppModel::commitEdit(SpeedTimeline previous, SpeedTimeline edited, const QString& actionName) {
  setTimeline(std::move(edited));
  registerUndo(std::move(previous), actionName);
  scheduleCompositionRebuild();
  saveSession();
}

void AppModel::addSegment(RationalTime start, RationalTime end, Speed speed) {
  applyEdit("addSegment", kAddSegment, [&](SpeedTimeline& t) { return t.addSegment(start, end, speed); });
}

void AppModel::resizeSegment(const Uuid& id, RationalTime start, RationalTime end) {
  applyEdit("resizeSegment", kResizeSegment, [&](SpeedTimeline& t) { return t.updateSegment(id, start, end); });
}

void AppModel::changeSpeed(const Uuid& id, Speed speed) {
  applyEdit("changeSpeed", kChangeSpeed, [&](SpeedTimeline& t) { return t.setSpeed(speed, id); });
}

void AppModel::setTrim(RationalTime start, RationalTime end) {
  applyEdit("setTrim", kTrim, [&](SpeedTimeline& t) -> std::expected<void, SpeedTimelineError> {
    if (auto trimmed = t.setTrim(start, end); !trimmed) return trimmed;
    if (m_selectedSegmentId && !hasSegment(t, *m_selectedSegmentId)) setSelectedSegmentId(std::nullopt);
    if (m_pendingRegion) {
      PendingRegion region = *m_pendingRegion;
      if (region.inPoint) region.inPoint = clamped(*region.inPoint, start, end);
      if (region.outPoint) region.outPoint = clamped(*region.outPoint, start, end);
      const bool collapsed = region.inPoint && region.outPoint && *region.inPoint == *region.outPoint;
      setPendingRegion(collapsed ? std::nullopt : std::optional(region));
    }
    if (m_currentTime < start || end < m_currentTime) seek(clamped(m_currentTime, start, end));
    return {};
  });
}

void AppModel::deleteSelectedSegment() {
  if (!m_selectedSegmentId || !m_timeline) return;
  SpeedTimeline edited = *m_timeline;
  edited.removeSegment(*m_selectedSegmentId);
  setSelectedSegmentId(std::nullopt);
  // Even when the id named no segment: the user asked for a step and gets one to undo.
  commitEdit(*m_timeline, std::move(edited), kDeleteSegment);
}

void AppModel::markIn() {
  if (!m_timeline) return;
  setPendingRegion(PendingRegion{m_currentTime, m_pendingRegion ? m_pendingRegion->outPoint : std::nullopt});
}

void AppModel::markOut() {
  if (!m_timeline) return;
  setPendingRegion(PendingRegion{m_pendingRegion ? m_pendingRegion->inPoint : std::nullopt, m_currentTime});
}

void AppModel::placePendingRegion(RationalTime in, RationalTime out) {
  if (!m_timeline) return;
  setPendingRegion(PendingRegion{in, out});
}

void AppModel::commitPendingRegion(Speed speed) {
  if (!m_pendingRegion || !m_pendingRegion->inPoint || !m_pendingRegion->outPoint) return;
  const RationalTime in = *m_pendingRegion->inPoint;
  const RationalTime out = *m_pendingRegion->outPoint;
  if (in == out || !m_timeline) return;
  const RationalTime start = std::min(in, out);
  const RationalTime end = std::max(in, out);
  addSegment(start, end, speed);
  // Selects what the add made; a refused add leaves no such segment and so clears the selection.
  std::optional<Uuid> added;
  for (const SpeedSegment& s : m_timeline->segments())
    if (s.start == start && s.end == end) added = s.id;
  setSelectedSegmentId(added);
  setPendingRegion(std::nullopt);
}

void AppModel::cancelPendingRegion() { setPendingRegion(std::nullopt); }

void AppModel::registerUndo(SpeedTimeline previous, const QString& actionName) {
  if (m_undoStack) m_undoStack->push(new TimelineSnapshotCommand(*this, std::move(previous), actionName));
}

std::optional<SpeedTimeline> AppModel::restoreTimelineSnapshot(const SpeedTimeline& snapshot) {
  std::optional<SpeedTimeline> replaced = m_timeline;
  setTimeline(snapshot);
  if (m_selectedSegmentId && !hasSegment(snapshot, *m_selectedSegmentId)) setSelectedSegmentId(std::nullopt);
  scheduleCompositionRebuild();
  saveSession();
  return replaced;
}

void AppModel::saveSession() const {
  if (!m_timeline || !m_currentVideoBookmark || !m_phase.isEditing()) return;
  const QString path = QFile::decodeName(QByteArray(m_phase.video->path.c_str()));
  // No fingerprint (the file cannot be examined): nothing is written, and the edit stands.
  auto session = makeSession(*m_currentVideoBookmark, path, *m_timeline);
  if (!session) return;
  if (session->fileSize != m_openedFileSize) {
    qCInfo(lcApp, "Session save skipped: the video changed on disk since it was opened.");
    return;
  }
  m_store.save(*session);
}

}  // namespace vantrix
