#pragma once

#include "app/AppServices.h"
#include "app/PendingRegion.h"
#include "app/TaskHandle.h"
#include "media/AppError.h"
#include "media/Composition.h"
#include "media/LoadedVideo.h"
#include "media/Player.h"
#include "model/RationalTime.h"
#include "model/Speed.h"
#include "model/SpeedTimeline.h"
#include "model/Uuid.h"
#include "persistence/SessionStore.h"

#include <QImage>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUndoStack>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

namespace vantrix {

class SaveDialog;
class FileRevealer;

// The state of one editor window and every command that changes it: the open video, the edit
// document (a SpeedTimeline in source time), selection, the marks of a region being placed, undo,
// the playhead, the filmstrip and the export. Views read the getters, listen to the change signals
// (each emitted only when its value really changed; times compare as rational values) and call
// the commands; nothing else changes the state.
//
// Two time domains meet here. Edits, the playhead and the strip speak source time; the preview
// player speaks output time (time in the composition it plays). The model converts between them
// through compositionTimeline, the timeline the installed composition was built from, because the
// player may still be playing an older composition while a rebuild runs.
//
// Threads: lives on the GUI thread and is used only there. Opening, composition builds, the
// filmstrip and the export run as cancellable tasks on the model's own worker threads; each holds
// the model weakly, checks its stop token after every blocking step and hands results back to the
// GUI thread, where a superseded or cancelled task's results are dropped. Destroying the model
// cancels its tasks and waits for them to return.
//
// The implementation is split by concern: AppModel.cpp (state), AppModelOpening.cpp,
// AppModelCommands.cpp, AppModelPlayback.cpp and AppModelExport.cpp.
class AppModel : public QObject {
  Q_OBJECT

 public:
  // What the window shows: no video, a video being opened, or a video open for editing.
  struct Phase {
    enum class Kind { empty, loading, editing };
    Kind kind = Kind::empty;
    std::optional<LoadedVideo> video;  // set exactly while editing

    static Phase empty() { return {}; }
    static Phase loading() { return {Kind::loading, std::nullopt}; }
    static Phase editing(LoadedVideo video) { return {Kind::editing, std::move(video)}; }
    bool isEditing() const { return kind == Kind::editing; }

    // Same kind and, while editing, the same load of a video (LoadedVideo::id).
    friend bool operator==(const Phase& a, const Phase& b) {
      return a.kind == b.kind && a.video.has_value() == b.video.has_value() && (!a.video || a.video->id == b.video->id);
    }
  };

  // Sessions are read from and written to `store`; media, desktop and timing services come from
  // `services` (AppServices::standard() in the application).
  explicit AppModel(SessionStore store, AppServices services = AppServices::standard(), QObject* parent = nullptr);
  ~AppModel() override;

  // --- State -------------------------------------------------------------------------------------

  const Phase& phase() const { return m_phase; }
  bool showsLoadingIndicator() const { return m_showsLoadingIndicator; }
  const std::optional<AppError>& activeError() const { return m_activeError; }
  // Source duration of the open video; 0/1 without one.
  RationalTime duration() const { return m_duration; }
  // The playhead, in source time.
  RationalTime currentTime() const { return m_currentTime; }
  // Filmstrip slots by index; a null image is a slot not filled yet.
  const std::vector<QImage>& thumbnails() const { return m_thumbnails; }
  // The edit document; none without a video or when the video's duration is not positive.
  const std::optional<SpeedTimeline>& timeline() const { return m_timeline; }
  const std::optional<Uuid>& selectedSegmentId() const { return m_selectedSegmentId; }
  const std::optional<PendingRegion>& pendingRegion() const { return m_pendingRegion; }
  bool isExporting() const { return m_isExporting; }
  // 0...1 while exporting, none otherwise.
  std::optional<double> exportProgress() const { return m_exportProgress; }
  // The composition last installed in the player, and the timeline it was built from.
  const std::shared_ptr<const Composition>& composition() const { return m_composition; }
  const std::optional<SpeedTimeline>& compositionTimeline() const { return m_compositionTimeline; }
  // The open video's preview player; null without a video.
  Player* player() const { return m_phase.isEditing() ? m_phase.video->player.get() : nullptr; }
  // The bookmark written into this video's sessions; none means its edits are not saved.
  const std::optional<std::vector<std::uint8_t>>& currentVideoBookmark() const { return m_currentVideoBookmark; }
  const SessionStore& sessionStore() const { return m_store; }

  // The window's undo stack (not owned). Each edit becomes one step on it, named after the action.
  QUndoStack* undoStack() const { return m_undoStack; }
  void setUndoStack(QUndoStack* stack) { m_undoStack = stack; }

  // The window clears the error when its alert is dismissed.
  void dismissError() { setActiveError(std::nullopt); }

  // --- Opening -----------------------------------------------------------------------------------

  // Starts opening the file and returns at once. The window shows the loading state, with a
  // spinner once the open has taken longer than kSpinnerDelay. On success the video replaces the
  // open one (with its restored or fresh timeline, an empty undo history for this model, no
  // selection, no marks, the playhead at zero); on failure the previous state returns and the
  // error is shown. A newer open cancels an older one, which then changes nothing.
  void openVideo(const std::filesystem::path& path);
  static constexpr std::chrono::milliseconds kSpinnerDelay{180};

  // --- Editing commands (each does nothing without a timeline) -----------------------------------
  //
  // An edit the timeline refuses changes nothing and is logged as unreachable, because the views
  // offer only valid edits. Every accepted edit is one undo step, rebuilds the preview and saves
  // the session.

  void addSegment(RationalTime start, RationalTime end, Speed speed);
  void resizeSegment(const Uuid& id, RationalTime start, RationalTime end);
  // Also drops a selection the trim cut away, clamps the marks into the new range (clearing them
  // when they collapse onto one time) and moves a playhead outside the range to its nearer edge.
  void setTrim(RationalTime start, RationalTime end);
  void changeSpeed(const Uuid& id, Speed speed);
  // Removes the selected segment and clears the selection. A selection naming no segment still
  // makes an undo step (that restores the same timeline).
  void deleteSelectedSegment();

  // Selects a segment of the timeline; an unknown id or none clears the selection.
  void select(std::optional<Uuid> id);
  std::optional<Speed> selectedSpeed() const;

  // Set one mark at the playhead, keeping the other.
  void markIn();
  void markOut();
  // Both marks at once: the region a drag on the strip proposed.
  void placePendingRegion(RationalTime in, RationalTime out);
  // Adds the marked region (in either order) at `speed`, selects it and clears the marks. Does
  // nothing while a mark is missing or both are equal.
  void commitPendingRegion(Speed speed);
  void cancelPendingRegion();

  // --- Playback ------------------------------------------------------------------------------------

  void togglePlayPause();
  // Moves the playhead to `sourceTime` clamped into [0, duration] and seeks the player exactly.
  void seek(RationalTime sourceTime);
  // Fills `count` filmstrip slots with stills `height` points high at `scale` device pixels per
  // point. Asking again for the same count once every slot is filled does nothing; a count of 0
  // (or no video) clears the filmstrip.
  void requestThumbnails(int count, double height, double scale);
  // Builds the preview of the current timeline anew and swaps it into the player at the same
  // source position, playing on if it was playing. A newer call cancels an older build.
  void scheduleCompositionRebuild();

  // --- Export ----------------------------------------------------------------------------------------

  // The window's save dialog and file browser (not owned; the window outlives its model).
  void setExportInterfaces(SaveDialog* saveDialog, FileRevealer* fileRevealer);
  // A video is open, its first composition is installed and no export runs.
  bool canExport() const;
  // Asks for a destination, saves the session and exports the installed composition in the
  // background; the finished file is revealed, a failure is shown, a cancellation shows nothing.
  void exportVideo();
  // Asks the running export to stop; it then ends as a cancellation.
  void cancelExport();

 signals:
  void phaseChanged();
  void showsLoadingIndicatorChanged();
  void activeErrorChanged();
  void durationChanged();
  void currentTimeChanged();
  void thumbnailsChanged();
  void timelineChanged();
  void selectedSegmentIdChanged();
  void pendingRegionChanged();
  void isExportingChanged();
  void exportProgressChanged();
  void compositionChanged();  // composition and compositionTimeline, which change together

 private:
  friend class TimelineSnapshotCommand;
  // Lets tests plant states the public commands never produce (a selection naming no segment).
  friend struct AppModelTestAccess;

  // State writes; each notifies only on a real change.
  void setPhase(Phase phase);
  void setShowsLoadingIndicator(bool shows);
  void setActiveError(std::optional<AppError> error);
  void setDuration(RationalTime duration);
  void setCurrentTime(RationalTime time);
  void setTimeline(std::optional<SpeedTimeline> timeline);
  void setSelectedSegmentId(std::optional<Uuid> id);
  void setPendingRegion(std::optional<PendingRegion> region);
  void setIsExporting(bool exporting);
  void setExportProgress(std::optional<double> progress);
  void setComposition(std::shared_ptr<const Composition> composition, std::optional<SpeedTimeline> timeline);
  void setThumbnails(std::vector<QImage> thumbnails);

  // Opening (AppModelOpening.cpp).
  void finishLoad(std::expected<LoadedVideo, AppError> result);
  void applyLoadedVideo(LoadedVideo video);
  SpeedTimeline makeTimeline(const QString& videoPath, RationalTime duration) const;
  void removeOwnUndoActions();
  void stopSpinner();

  // Commands (AppModelCommands.cpp).
  template <class Edit>
  void applyEdit(const char* command, const QString& actionName, Edit edit);
  void commitEdit(SpeedTimeline previous, SpeedTimeline edited, const QString& actionName);
  void registerUndo(SpeedTimeline previous, const QString& actionName);
  // Puts a snapshot back for undo or redo; returns the timeline it replaced.
  std::optional<SpeedTimeline> restoreTimelineSnapshot(const SpeedTimeline& snapshot);
  void saveSession() const;

  // Playback (AppModelPlayback.cpp).
  void attachTimeObserver();
  void detachTimeObserver();
  void observePlayerTime(RationalTime outputTime);
  void installComposition(std::shared_ptr<const Composition> composition, SpeedTimeline builtFrom);

  // Export (AppModelExport.cpp).
  void finishExport();
  void endExport(std::uint64_t exportNumber, std::expected<Exporter::Outcome, AppError> result,
                 const QString& destination);

  static void cancel(std::optional<TaskHandle>& task) {
    if (task) task->cancel();
  }

  AppServices m_services;
  SessionStore m_store;

  Phase m_phase;
  bool m_showsLoadingIndicator = false;
  std::optional<AppError> m_activeError;
  RationalTime m_duration = RationalTime::zero();
  RationalTime m_currentTime = RationalTime::zero();
  std::vector<QImage> m_thumbnails;
  std::optional<SpeedTimeline> m_timeline;
  std::optional<Uuid> m_selectedSegmentId;
  QPointer<QUndoStack> m_undoStack;
  bool m_isExporting = false;
  std::optional<double> m_exportProgress;
  std::shared_ptr<const Composition> m_composition;
  std::optional<SpeedTimeline> m_compositionTimeline;
  std::optional<Player::ObserverToken> m_timeObserver;
  std::weak_ptr<Player> m_observedPlayer;
  std::optional<std::vector<std::uint8_t>> m_currentVideoBookmark;
  // The size of the open video's file when its session was looked up. Sessions are saved only
  // while the file still has it, so that edits are never recorded for a file cut short or replaced
  // by another video since (the next open would take them as its own). A file only touched keeps
  // its size, and its session is saved with the new date as before.
  std::optional<std::int64_t> m_openedFileSize;
  std::optional<PendingRegion> m_pendingRegion;

  // Where a failed open returns to: the video that was open when the first of a run of opens
  // started (an open that interrupts another keeps the earlier one's fallback).
  Phase m_loadFallback;

  std::optional<TaskHandle> m_loadTask;
  std::unique_ptr<DelayedCall> m_spinnerTask;
  std::optional<TaskHandle> m_thumbnailTask;
  std::optional<TaskHandle> m_compositionTask;
  std::optional<TaskHandle> m_exportTask;
  std::uint64_t m_exportNumber = 0;  // tells a finished export from a newer one

  SaveDialog* m_saveDialog = nullptr;
  FileRevealer* m_fileRevealer = nullptr;

  TaskRunner m_tasks;
};

}  // namespace vantrix
