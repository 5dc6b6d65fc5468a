#pragma once

#include "media/FfmpegPtr.h"
#include "media/MediaAsset.h"
#include "media/MediaError.h"
#include "media/VideoDecoder.h"
#include "model/RationalTime.h"

#include <expected>
#include <functional>
#include <memory>
#include <stop_token>

namespace vantrix {

// Pictures for a sped-up stretch when exact decoding cannot keep up with the clock (a 16x range
// of a large video on a small machine): for a source instant it shows the keyframe that opens
// the instant's group of pictures and then, only while the caller says there is time, the
// reference pictures after it up to the instant. Non-reference pictures are never decoded. So
// the picture keeps moving and the playhead stays on time, at the price of showing a slightly
// earlier source frame than exact decoding would. Instants are expected to grow, as in playback.
//
// Reads the source through a decoder of its own, beside the player's composition reader. Used
// by the player's decode thread only; blocking.
class CatchUpSampler {
 public:
  static std::expected<CatchUpSampler, MediaError> open(std::shared_ptr<const MediaAsset> asset,
                                                        std::stop_token stop, int decoderThreads);

  void setStopToken(std::stop_token stop) { m_decoder.setStopToken(std::move(stop)); }

  struct Picture {
    const AVFrame* frame = nullptr;  // valid until the next call of sample()
    RationalTime sourceTime;
  };
  // The latest picture at or before source time `s` that the above allows; `keepGoing` is asked
  // before every picture decoded beyond the keyframe. A null frame when the stream holds none.
  std::expected<Picture, MediaError> sample(RationalTime s, const std::function<bool()>& keepGoing);

 private:
  explicit CatchUpSampler(VideoDecoder decoder) : m_decoder(std::move(decoder)) {}
  std::expected<FramePtr, MediaError> decodeNext();
  RationalTime sourceTimeOf(const AVFrame& frame) const;

  VideoDecoder m_decoder;
  FramePtr m_held;   // the latest picture handed out
  FramePtr m_ahead;  // decoded, but later than the last instant asked for
  std::optional<std::int64_t> m_group;  // index timestamp of the keyframe m_held descends from
};

}  // namespace vantrix
