#pragma once

#include "media/AudioRing.h"
#include "media/CatchUpSampler.h"
#include "media/Composition.h"
#include "media/CompositionReader.h"
#include "media/FrameScaler.h"
#include "media/Playhead.h"
#include "media/VideoOutput.h"

#include <QSize>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

namespace vantrix {

// The player's decode thread: reads the current item through its own CompositionReader, works
// ahead of the playhead, and leaves pictures (already scaled for the view) in a small bounded
// queue and sound in the AudioRing, both stamped with their output time.
//
// Every request opens a session, and everything produced is tagged with it; whatever belongs to
// an older session is dropped on both sides, and a new request interrupts the blocking work of
// the previous one through its stop token.
//
// When a sped-up stretch cannot be decoded exactly in time (the picture it is about to queue is
// due in less than kCatchUpLead while the playhead runs), the rest of that stretch is sampled by
// a CatchUpSampler, and meanwhile the reader is moved to the start of the following stretch and
// its first picture decoded, so that normal playback resumes there without a stall.
//
// The constructor, start, setFrameSize and the queue accessors are for the player's (GUI) thread;
// the reports are called on the decode thread.
class PlayerWorker {
 public:
  struct Reports {
    // Something changed for `session`: a picture was queued, or no more will come.
    std::function<void(std::uint64_t session)> framesReady;
    // Reading `session`'s item failed; nothing more comes for it.
    std::function<void(std::uint64_t session, const MediaError& error)> failed;
  };

  struct QueuedFrame {
    PlayerFrame frame;
    bool catchUp = false;  // sampled to keep up rather than decoded exactly
  };

  static constexpr int kQueueCapacity = 8;

  // `ring` is null when no sound is to be decoded.
  PlayerWorker(std::shared_ptr<const Playhead> playhead, std::shared_ptr<AudioRing> ring, Reports reports,
               int decoderThreads, bool catchUp);
  ~PlayerWorker();
  PlayerWorker(const PlayerWorker&) = delete;
  PlayerWorker& operator=(const PlayerWorker&) = delete;

  // From now on, produce `item` (null: nothing) from output time `at` for `session`, which must
  // be newer than every earlier one. Empties the queue at once.
  void start(std::uint64_t session, std::shared_ptr<const Composition> item, RationalTime at);
  // Pictures queued from now on are scaled to `size`; an empty size keeps the source's.
  void setFrameSize(QSize size);

  // Output time of the next queued picture of `session`.
  std::optional<RationalTime> nextTime(std::uint64_t session) const;
  std::optional<QueuedFrame> take(std::uint64_t session);
  int queued(std::uint64_t session) const;
  // True once the last picture of `session` has been queued (or reading it failed).
  bool finished(std::uint64_t session) const;

 private:
  struct Request {
    std::uint64_t session = 0;
    std::shared_ptr<const Composition> item;
    RationalTime at;
    std::stop_token stop;
  };
  struct CatchUp {
    CompositionEdit edit;
    RationalTime next;  // output time of the next instant to sample
    std::optional<RationalTime> lastSource;
    bool prefetched = false;
  };

  void run(std::stop_token stop);
  bool wantsWorkLocked() const;
  bool wantsAudio() const;
  void begin(const Request& request);
  void step();
  void produceVideo();
  void stepCatchUp();
  void enterCatchUp(const CompositionEdit& edit, RationalTime from);
  void prefetch(RationalTime at);
  void produceAudio();
  void queue(const AVFrame& picture, RationalTime outputTime, RationalTime sourceTime, bool catchUp);
  void finish();
  void fail(const MediaError& error);
  RationalTime lead(RationalTime outputTime) const { return outputTime - m_playhead->now(); }
  RationalTime nextGridInstant(RationalTime t) const;

  const std::shared_ptr<const Playhead> m_playhead;
  const std::shared_ptr<AudioRing> m_ring;
  const Reports m_reports;
  const int m_decoderThreads;
  const bool m_catchUpAllowed;

  // Shared with the GUI thread.
  mutable std::mutex m_mutex;
  std::condition_variable_any m_wake;
  std::optional<Request> m_pending;
  std::stop_source m_requestStop;
  std::deque<QueuedFrame> m_queue;
  std::uint64_t m_session = 0;  // the session m_queue and m_finished belong to
  bool m_finished = true;
  QSize m_size;

  // Decode thread only.
  std::uint64_t m_producing = 0;
  std::stop_token m_stop;  // the producing request's
  std::shared_ptr<const Composition> m_item;
  std::optional<CompositionReader> m_reader;
  std::optional<CatchUpSampler> m_sampler;
  std::optional<CatchUp> m_catchUp;
  std::optional<CompositionReader::VideoFrame> m_prefetched;
  FrameScaler m_scaler;
  RationalTime m_videoAt;  // output time of the last picture produced
  bool m_videoDone = true;
  bool m_audioDone = true;
  bool m_audioBlocked = false;
  std::int64_t m_audioPosition = 0;  // output sample index of the next sound read
  std::int64_t m_chunkPosition = 0;
  std::vector<float> m_chunk;  // read but not yet accepted by the ring
  std::vector<std::vector<float>> m_planes;

  std::jthread m_thread;  // last: started when everything above exists
};

}  // namespace vantrix
