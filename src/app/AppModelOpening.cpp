// Opening a video: the load task, the delayed spinner, applying the loaded video and restoring its
// session.

#include "app/AppLog.h"
#include "app/AppModel.h"
#include "app/TimelineSnapshotCommand.h"
#include "persistence/SessionRestore.h"

#include <QFile>

namespace vantrix {
namespace {

QString qPath(const std::filesystem::path& path) { return QFile::decodeName(QByteArray(path.c_str())); }

}  // namespace

void AppModel::openVideo(const std::filesystem::path& path) {
  cancel(m_loadTask);
  if (m_spinnerTask) m_spinnerTask->cancel();
  cancel(m_thumbnailTask);
  cancel(m_compositionTask);

  // An open that interrupts another returns, on failure, to what the first one would have.
  if (m_phase.kind != Phase::Kind::loading) m_loadFallback = m_phase.isEditing() ? m_phase : Phase::empty();
  setShowsLoadingIndicator(false);

  m_spinnerTask = m_services.startDelay(kSpinnerDelay, [weak = QPointer<AppModel>(this)] {
    if (weak) weak->setShowsLoadingIndicator(true);
  });
  setPhase(Phase::loading());

  m_loadTask =
      m_tasks.start([weak = QPointer<AppModel>(this), load = m_services.loadVideo, path](std::stop_token stop) {
        auto result = load(path, stop);
        if (stop.stop_requested()) return;
        postTo(weak, [stop, result = std::move(result)](AppModel& model) mutable {
          if (!stop.stop_requested()) model.finishLoad(std::move(result));
        });
      });
}

void AppModel::stopSpinner() {
  if (m_spinnerTask) m_spinnerTask->cancel();
  setShowsLoadingIndicator(false);
}

void AppModel::finishLoad(std::expected<LoadedVideo, AppError> result) {
  stopSpinner();
  // The player belongs to the GUI thread, so it is made here rather than by the load task.
  if (result)
    if (auto attached = result->attachPlayer(m_services.playerOptions()); !attached)
      result = std::unexpected(attached.error());
  if (!result) {
    // The fallback is the phase the window showed before; the video it names, with its timeline,
    // player and undo history, was never touched by the failed open.
    setPhase(m_loadFallback);
    qCInfo(lcApp, "Open failed: %s", std::string(result.error().description()).c_str());
    setActiveError(result.error());
    return;
  }
  applyLoadedVideo(std::move(*result));
}

void AppModel::applyLoadedVideo(LoadedVideo video) {
  detachTimeObserver();
  cancel(m_compositionTask);
  setComposition(nullptr, std::nullopt);

  const QString path = qPath(video.path);
  // The loader refuses videos without frames, so a zero duration only comes from an asset that
  // cannot tell its length: then the video opens without a timeline and cannot be edited.
  const RationalTime duration = video.asset ? video.asset->duration() : RationalTime::zero();
  setPhase(Phase::editing(std::move(video)));
  setDuration(duration);

  m_currentVideoBookmark = m_services.makeBookmark ? m_services.makeBookmark(path) : std::nullopt;
  const auto fingerprint = SessionStore::fingerprint(path);
  m_openedFileSize = fingerprint ? std::optional(fingerprint->size) : std::nullopt;
  setTimeline(RationalTime::zero() < duration ? std::optional(makeTimeline(path, duration)) : std::nullopt);
  setSelectedSegmentId(std::nullopt);
  setPendingRegion(std::nullopt);
  removeOwnUndoActions();
  setCurrentTime(RationalTime::zero());
  // The previous video's filmstrip would otherwise pass for this one's at the same slot count.
  setThumbnails({});

  attachTimeObserver();
  scheduleCompositionRebuild();
}

SpeedTimeline AppModel::makeTimeline(const QString& videoPath, RationalTime duration) const {
  RestoredTimeline restored = restoreTimelineOrFresh(m_store.loadForVideo(videoPath), duration);
  if (restored.refusal)
    qCInfo(lcApp, "Restored session violated a domain invariant; starting fresh: %s",
           std::string(toString(*restored.refusal)).c_str());
  return std::move(restored.timeline);
}

void AppModel::removeOwnUndoActions() {
  QUndoStack* stack = m_undoStack;
  if (!stack) return;
  bool onlyOwn = true;
  for (int i = 0; i < stack->count(); ++i) {
    const auto* command = dynamic_cast<const TimelineSnapshotCommand*>(stack->command(i));
    onlyOwn = onlyOwn && command && command->belongsTo(this);
  }
  if (onlyOwn) {
    stack->clear();
    return;
  }
  // A stack cannot give up single commands. Ours are retired instead: they do nothing any more
  // and the stack discards each when it reaches it, while other owners' steps keep working.
  for (int i = 0; i < stack->count(); ++i) {
    auto* command = dynamic_cast<TimelineSnapshotCommand*>(const_cast<QUndoCommand*>(stack->command(i)));
    if (command && command->belongsTo(this)) command->retire();
  }
}

}  // namespace vantrix
