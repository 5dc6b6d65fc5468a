#pragma once

#include "media/Composition.h"
#include "media/FfmpegPtr.h"
#include "media/MediaError.h"
#include "media/VideoDecoder.h"

#include <cstdint>
#include <deque>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>

namespace vantrix {

// The picture side of CompositionReader: walks the composition's video edits and decides, for each
// output frame, its output time and the source frame it shows (see CompositionReader for the rule),
// decoding the source as far as needed and no further.
//
// Used by one worker thread at a time; blocking.
class VideoFrameSource {
 public:
  struct Frame {
    FramePtr picture;
    RationalTime outputTime;
    RationalTime sourceTime;
  };

  static std::expected<std::unique_ptr<VideoFrameSource>, MediaError> open(
      std::shared_ptr<const Composition> composition, std::stop_token stop, int decoderThreads);

  void setStopToken(std::stop_token stop) { m_decoder.setStopToken(std::move(stop)); }
  std::int64_t framesDecoded() const { return m_decoder.framesDecoded(); }

  // The next frame to come out is the one showing at output time t, with outputTime t.
  void seek(RationalTime t);
  // Follows another composition of the same asset from its start, keeping the decoder and the
  // decoded frames.
  void replaceComposition(std::shared_ptr<const Composition> composition);
  std::expected<std::optional<Frame>, MediaError> next();

 private:
  struct Held {
    FramePtr picture;
    RationalTime sourceTime;
  };

  VideoFrameSource(std::shared_ptr<const Composition> composition, VideoDecoder decoder);
  std::expected<std::optional<Frame>, MediaError> emitShowing(const CompositionEdit& edit, RationalTime t);
  // The latest source frame at or before source time x (the first frame of the stream when x
  // lies before it); null when the stream has no frame at all.
  std::expected<const Held*, MediaError> latestAtOrBefore(RationalTime x);
  // The first source frame after the one held; null at the end of the stream.
  std::expected<const Held*, MediaError> frameAfterHeld();
  std::expected<bool, MediaError> decodeInto(std::optional<Held>& slot);
  std::expected<void, MediaError> reposition(RationalTime x);
  // The source instant in ticks of the track's time base, rounded down.
  std::int64_t timestampOf(RationalTime sourceTime) const;
  // Instants of the output frame grid (multiples of 1/frameRate): step 0 gives the last one at or
  // before t, step 1 the first one after t.
  RationalTime gridInstant(RationalTime t, int step) const;

  std::shared_ptr<const Composition> m_composition;
  VideoDecoder m_decoder;
  // Frames kept behind the one held, so that a step back by a few frames (the preview after an
  // edit, at the playhead, while the decoder has run ahead of it) needs no new decoding.
  static constexpr std::size_t kHistoryFrames = 12;
  // Frames by which decoding may run ahead of presentation (B-frame reordering), generously.
  static constexpr std::int64_t kReorderFrames = 4;

  // The picture after m_held becomes the held one; the old one goes to the history.
  void promoteAhead();
  // Makes the latest kept frame at or before x the held one, when the history reaches back to x;
  // the frames after it are served again before any new decoding.
  void stepBack(RationalTime x);

  std::deque<Held> m_history;  // decoded frames before m_held, a complete run, oldest first
  std::optional<Held> m_held;  // the latest decoded frame at or before the last target
  std::optional<Held> m_ahead; // the decoded frame after m_held, when one was needed to know that
  std::deque<Held> m_replay;   // decoded frames after m_ahead, from a step back
  bool m_streamEnded = false;
  bool m_positioned = false;

  std::size_t m_edit = 0;
  std::optional<RationalTime> m_pendingStart;  // emit the frame showing at this output time next
  RationalTime m_lastOutput;
};

}  // namespace vantrix
