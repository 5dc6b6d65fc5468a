// Playback in step with the edits: the playhead from the player's time, seeks, play and pause, the
// composition rebuild and its installation at the same source moment, and the filmstrip.

#include "app/AppLog.h"
#include "app/AppModel.h"
#include "model/TimelineGeometry.h"

namespace vantrix {
namespace {

// How often the player reports its time to the playhead.
constexpr RationalTime kObserverInterval{1, 10};

RationalTime atStandardTimescale(RationalTime t) { return t.convertedToTimescale(RationalTime::kStandardTimescale); }

}  // namespace

void AppModel::attachTimeObserver() {
  Player* observed = player();
  if (!observed) return;
  m_timeObserver =
      observed->addPeriodicTimeObserver(kObserverInterval, [weak = QPointer<AppModel>(this)](RationalTime time) {
        if (weak) weak->observePlayerTime(time);
      });
  m_observedPlayer = m_phase.video->player;
}

void AppModel::detachTimeObserver() {
  if (m_timeObserver)
    if (auto observed = m_observedPlayer.lock()) observed->removeTimeObserver(*m_timeObserver);
  m_timeObserver.reset();
  m_observedPlayer.reset();
}

void AppModel::observePlayerTime(RationalTime outputTime) {
  const RationalTime output = atStandardTimescale(outputTime);
  setCurrentTime(m_compositionTimeline ? m_compositionTimeline->sourceTimeForOutput(output) : output);
}

void AppModel::seek(RationalTime sourceTime) {
  if (!m_phase.isEditing()) return;
  RationalTime target = std::min(sourceTime, m_duration);
  if (target < RationalTime::zero()) target = RationalTime::zero();
  setCurrentTime(target);
  if (Player* p = player())
    p->seek(m_compositionTimeline ? m_compositionTimeline->outputTimeForSource(target) : target, RationalTime::zero(),
            RationalTime::zero());
}

void AppModel::togglePlayPause() {
  Player* p = player();
  if (!p) return;
  // Waiting to play counts as playing: the user asked for playback and now asks it to stop.
  if (p->timeControlStatus() != Player::TimeControlStatus::paused)
    p->pause();
  else
    p->play();
}

void AppModel::scheduleCompositionRebuild() {
  if (!m_phase.isEditing() || !m_timeline) return;
  cancel(m_compositionTask);
  m_compositionTask = m_tasks.start([weak = QPointer<AppModel>(this), build = m_services.buildComposition,
                                     asset = m_phase.video->asset, timeline = *m_timeline](std::stop_token stop) {
    auto built = build(timeline, asset);
    if (stop.stop_requested()) return;
    postTo(weak, [stop, built = std::move(built), timeline](AppModel& model) mutable {
      if (stop.stop_requested()) return;
      if (!built) {
        // The previous composition stays installed and playing; nothing is shown to the user.
        qCCritical(lcApp, "Composition rebuild failed: %s", std::string(built.error().description()).c_str());
        return;
      }
      model.installComposition(std::move(*built), std::move(timeline));
    });
  });
}

void AppModel::installComposition(std::shared_ptr<const Composition> composition, SpeedTimeline builtFrom) {
  Player* p = player();
  if (!p) return;
  const bool wasPlaying = p->timeControlStatus() != Player::TimeControlStatus::paused;
  // The moment on screen, in source time through the composition it belongs to, and where that
  // moment lies in the new composition.
  const RationalTime output = atStandardTimescale(p->currentTime());
  const RationalTime source = m_compositionTimeline ? m_compositionTimeline->sourceTimeForOutput(output) : output;
  const RationalTime target = builtFrom.outputTimeForSource(source);

  p->replaceCurrentItem(composition);
  setComposition(std::move(composition), std::move(builtFrom));
  p->seek(target, RationalTime::zero(), RationalTime::zero(),
          [weak = QPointer<AppModel>(this), player = std::weak_ptr(m_phase.video->player), wasPlaying](bool) {
            const auto alive = player.lock();
            if (weak && alive && wasPlaying) alive->play();
          });
}

void AppModel::requestThumbnails(int count, double height, double scale) {
  if (!m_phase.isEditing() || !(RationalTime::zero() < m_duration) || count <= 0) {
    cancel(m_thumbnailTask);
    setThumbnails({});
    return;
  }
  if (m_thumbnails.size() == static_cast<std::size_t>(count) &&
      std::ranges::none_of(m_thumbnails, [](const QImage& image) { return image.isNull(); }))
    return;

  cancel(m_thumbnailTask);
  setThumbnails(std::vector<QImage>(static_cast<std::size_t>(count)));
  m_thumbnailTask = m_tasks.start(
      [weak = QPointer<AppModel>(this), generate = m_services.generateThumbnails, asset = m_phase.video->asset,
       times = TimelineGeometry::sampleTimes(count, m_duration), height, scale](std::stop_token stop) {
        generate(asset, times, height, scale, stop, [&](ThumbnailGenerator::Thumbnail&& thumbnail) {
          postTo(weak, [stop, thumbnail = std::move(thumbnail)](AppModel& model) mutable {
            if (stop.stop_requested()) return;
            if (thumbnail.index < 0 || static_cast<std::size_t>(thumbnail.index) >= model.m_thumbnails.size()) return;
            model.m_thumbnails[static_cast<std::size_t>(thumbnail.index)] = std::move(thumbnail.image);
            emit model.thumbnailsChanged();
          });
        });
      });
}

}  // namespace vantrix
