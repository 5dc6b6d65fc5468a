#include "app/AppModel.h"

#include <algorithm>

namespace vantrix {

AppModel::AppModel(SessionStore store, AppServices services, QObject* parent)
    : QObject(parent), m_services(std::move(services)), m_store(std::move(store)) {}

AppModel::~AppModel() {
  cancel(m_loadTask);
  cancel(m_thumbnailTask);
  cancel(m_compositionTask);
  cancel(m_exportTask);
  m_spinnerTask.reset();
  // Tasks may still be finishing a blocking step; they must not outlive the model they post to.
  m_tasks.waitForDone();
  detachTimeObserver();
}

void AppModel::setPhase(Phase phase) {
  const bool changed = !(phase == m_phase);
  m_phase = std::move(phase);
  if (changed) emit phaseChanged();
}

void AppModel::setShowsLoadingIndicator(bool shows) {
  if (shows == m_showsLoadingIndicator) return;
  m_showsLoadingIndicator = shows;
  emit showsLoadingIndicatorChanged();
}

void AppModel::setActiveError(std::optional<AppError> error) {
  // Compared by case, as errors are; a second diskFull over a shown one is no change.
  const bool changed = error.has_value() != m_activeError.has_value() || (error && !(*error == *m_activeError));
  m_activeError = std::move(error);
  if (changed) emit activeErrorChanged();
}

void AppModel::setDuration(RationalTime duration) {
  const bool changed = !(duration == m_duration);
  m_duration = duration;
  if (changed) emit durationChanged();
}

void AppModel::setCurrentTime(RationalTime time) {
  // Stored even when equal (the representation may differ); views re-render only on a new instant.
  const bool changed = !(time == m_currentTime);
  m_currentTime = time;
  if (changed) emit currentTimeChanged();
}

void AppModel::setTimeline(std::optional<SpeedTimeline> timeline) {
  const bool changed = timeline != m_timeline;
  m_timeline = std::move(timeline);
  if (changed) emit timelineChanged();
}

void AppModel::setSelectedSegmentId(std::optional<Uuid> id) {
  if (id == m_selectedSegmentId) return;
  m_selectedSegmentId = id;
  emit selectedSegmentIdChanged();
}

void AppModel::setPendingRegion(std::optional<PendingRegion> region) {
  const bool changed = region != m_pendingRegion;
  m_pendingRegion = region;
  if (changed) emit pendingRegionChanged();
}

void AppModel::setIsExporting(bool exporting) {
  if (exporting == m_isExporting) return;
  m_isExporting = exporting;
  emit isExportingChanged();
}

void AppModel::setExportProgress(std::optional<double> progress) {
  if (progress == m_exportProgress) return;
  m_exportProgress = progress;
  emit exportProgressChanged();
}

void AppModel::setComposition(std::shared_ptr<const Composition> composition, std::optional<SpeedTimeline> timeline) {
  const bool changed = composition != m_composition || timeline != m_compositionTimeline;
  m_composition = std::move(composition);
  m_compositionTimeline = std::move(timeline);
  if (changed) emit compositionChanged();
}

void AppModel::setThumbnails(std::vector<QImage> thumbnails) {
  const bool changed = thumbnails.size() != m_thumbnails.size() ||
                       !std::ranges::equal(thumbnails, m_thumbnails, [](const QImage& a, const QImage& b) {
                         return a.cacheKey() == b.cacheKey() || (a.isNull() && b.isNull());
                       });
  m_thumbnails = std::move(thumbnails);
  if (changed) emit thumbnailsChanged();
}

void AppModel::select(std::optional<Uuid> id) {
  if (id && m_timeline &&
      std::ranges::any_of(m_timeline->segments(), [&](const SpeedSegment& s) { return s.id == *id; })) {
    setSelectedSegmentId(id);
    return;
  }
  setSelectedSegmentId(std::nullopt);
}

std::optional<Speed> AppModel::selectedSpeed() const {
  if (!m_selectedSegmentId || !m_timeline) return std::nullopt;
  for (const SpeedSegment& s : m_timeline->segments())
    if (s.id == *m_selectedSegmentId) return s.speed;
  return std::nullopt;
}

void AppModel::setExportInterfaces(SaveDialog* saveDialog, FileRevealer* fileRevealer) {
  m_saveDialog = saveDialog;
  m_fileRevealer = fileRevealer;
}

}  // namespace vantrix
