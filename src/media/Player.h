#pragma once

#include "media/AudioOutput.h"
#include "media/Composition.h"
#include "media/MediaError.h"
#include "media/PlayerClock.h"
#include "media/Playhead.h"
#include "media/VideoOutput.h"
#include "model/RationalTime.h"

#include <QObject>
#include <QSize>
#include <QTimer>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace vantrix {

class AudioRing;
class PlayerWorker;

// The preview player: plays one item (a Composition) at a time, in output time, with its
// pictures going to a VideoOutput and its sound to an AudioOutput. The clock is the master:
// pictures are shown when the clock reaches their output time, sound follows the clock within
// 40 ms, and where decoding cannot keep up the picture degrades rather than the playhead lagging.
// Decoding and scaling run on the player's own decode thread (PlayerWorker), sound on the
// output's thread; everything the player reports (pictures, observer ticks, seek completions,
// status changes) arrives on the player's thread and belongs to the current item and position:
// reports of a replaced item or a superseded seek are dropped.
//
// Lives on the GUI thread, and every function is called there. Never calls into the app except
// through the callbacks and signals it was given.
class Player final : public QObject {
  Q_OBJECT

 public:
  enum class TimeControlStatus { paused, waitingToPlay, playing };

  struct Options {
    std::shared_ptr<PlayerClock> clock;  // null: a WallClock
    std::unique_ptr<AudioOutput> audio;  // null: makeDefaultAudioOutput()
    int decoderThreads = 0;              // 0: FFmpeg chooses
    // Whether sped-up stretches that cannot be decoded in time are sampled from keyframes (see
    // PlayerWorker). Off, every picture is exact and late ones are skipped.
    bool catchUp = true;
  };
  // Runs once per seek: true when the seek landed, false when a later seek or item superseded
  // it (or reading failed).
  using Completion = std::function<void(bool finished)>;
  using TimeObserver = std::function<void(RationalTime time)>;
  using ObserverToken = std::uint64_t;

  struct Statistics {
    std::int64_t framesPresented = 0;
    std::int64_t distinctFrames = 0;   // presented pictures showing another source frame than the one before
    std::int64_t lateFrames = 0;       // shown more than kLateBy after their time, or skipped because a later one was due
    std::int64_t catchUpFrames = 0;    // presented pictures sampled to keep up with a sped-up stretch
  };

  static constexpr RationalTime kLateBy{20, 1000};

  // Starts paused at output time zero of `item` (which may be null: nothing to play).
  Player(std::shared_ptr<const Composition> item, Options options, QObject* parent = nullptr);
  explicit Player(std::shared_ptr<const Composition> item, QObject* parent = nullptr);
  ~Player() override;

  const std::shared_ptr<const Composition>& currentItem() const { return m_item; }
  // Makes `item` current at its output time zero. Nothing of the previous item (picture, sound,
  // observer tick, seek completion other than `false`) arrives afterwards. A playing player goes
  // on playing the new item once its first pictures are decoded; a paused one stays paused.
  void replaceCurrentItem(std::shared_ptr<const Composition> item);

  void play();
  void pause();
  TimeControlStatus timeControlStatus() const { return m_status; }
  // Output time of the current item, within [0, duration].
  RationalTime currentTime() const;

  // Moves to output time `time` (clamped to the item): the picture then shown is the one showing
  // at `time`, that is the last frame at or before it. The tolerances permit landing elsewhere
  // within them; this player always lands exactly. The completion runs on this thread, after the
  // picture is shown.
  void seek(RationalTime time, RationalTime toleranceBefore, RationalTime toleranceAfter, Completion completion = {});

  // Calls `observer` with the current time each time playback passes a multiple of `interval`
  // (several passed at once give one call), only while playing.
  ObserverToken addPeriodicTimeObserver(RationalTime interval, TimeObserver observer);
  void removeTimeObserver(ObserverToken token);

  // The output for pictures (not owned; null for none). It is given the picture on screen at once.
  void setVideoOutput(VideoOutput* output);
  // Pictures are scaled to this pixel size on the decode thread; empty keeps the source's size.
  void setVideoSize(QSize size);

  // The picture on screen, if any.
  const std::optional<PlayerFrame>& currentFrame() const { return m_frame; }
  // The failure that stopped playback of the current item, if any.
  const std::optional<MediaError>& error() const { return m_error; }
  const Statistics& statistics() const { return m_statistics; }

 signals:
  void timeControlStatusChanged(vantrix::Player::TimeControlStatus status);
  // The current item played to its end; the player paused there.
  void playedToEnd();
  // Reading the current item failed (see error()); the player paused.
  void failed();

 private:
  struct Observer {
    RationalTime interval;
    TimeObserver callback;
    RationalTime next;  // the multiple of interval whose passing calls it next
  };
  struct PendingSeek {
    std::uint64_t session;
    Completion completion;
  };

  void startSession(RationalTime at);
  void advance();
  void presentDue(RationalTime now);
  void show(PlayerFrame frame, bool catchUp, bool late);
  void notifyObservers(RationalTime now);
  void scheduleNext();
  void setStatus(TimeControlStatus status);
  void finishSeek(bool landed);
  void onFramesReady(std::uint64_t session);
  void onFailed(std::uint64_t session, const MediaError& error);
  static RationalTime nextMultiple(RationalTime t, RationalTime interval);

  std::shared_ptr<PlayerClock> m_clock;
  std::shared_ptr<Playhead> m_playhead;
  std::unique_ptr<AudioOutput> m_audio;
  std::shared_ptr<AudioRing> m_ring;
  std::unique_ptr<PlayerWorker> m_worker;
  QTimer m_timer;

  std::shared_ptr<const Composition> m_item;
  std::uint64_t m_session = 0;
  bool m_settling = false;     // waiting for the first picture of the session
  bool m_wantsToPlay = false;  // play() was called and not undone
  TimeControlStatus m_status = TimeControlStatus::paused;
  std::optional<PendingSeek> m_seek;
  std::map<ObserverToken, Observer> m_observers;
  ObserverToken m_lastToken = 0;
  VideoOutput* m_output = nullptr;
  QSize m_size;
  std::optional<PlayerFrame> m_frame;
  std::optional<MediaError> m_error;
  Statistics m_statistics;
};

}  // namespace vantrix
