#pragma once

#include "media/FfmpegPtr.h"
#include "media/MediaAsset.h"
#include "media/MediaError.h"
#include "media/MediaInput.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>

namespace vantrix {

// Reads and decodes the video track of one asset on its own demuxer: seek to a keyframe, then
// frames one by one in presentation order. Frames hidden by an edit list never come out; a
// packet the decoder rejects is skipped. Timestamps are in ticks of the track's time base.
//
// Used by one thread at a time (a worker thread; it blocks on I/O and decoding). Movable.
class VideoDecoder {
 public:
  // `threads` is the decoder's thread count; 0 lets FFmpeg choose from the processor count.
  static std::expected<VideoDecoder, MediaError> open(std::shared_ptr<const MediaAsset> asset,
                                                      std::stop_token stop = {}, int threads = 0);

  const MediaAsset& asset() const { return *m_asset; }
  const VideoTrack& track() const { return *m_asset->video(); }
  // Leaves out the in-loop deblocking filter from here on: faster, with small block edges that
  // later frames of the group inherit. For pictures shown much smaller than stored (thumbnails).
  void skipDeblocking() { m_codec->skip_loop_filter = AVDISCARD_ALL; }
  // Replaces the token that interrupts reads and ends nextFrame() with `cancelled`.
  void setStopToken(std::stop_token stop) { m_input.setStopToken(std::move(stop)); }

  // Drops decoder state and continues from a keyframe early enough that the first frame coming
  // out is at or before `timestamp` (or is the first frame of the stream). Frames that open a group
  // of pictures may depend on the group before it, and a demuxer may land on a keyframe shown
  // after the target; when the first good frame decoded after a seek lies past the target,
  // nextFrame() starts again one keyframe earlier, at most kMaxRestarts times.
  std::expected<void, MediaError> seek(std::int64_t timestamp);
  // The next frame, or null after the last one. Frames whose references were not decoded (the
  // decoder flags them corrupt) never come out. The frame belongs to the decoder and stays valid
  // until the next call of nextFrame or seek; take a reference (av_frame_ref) to keep it longer.
  // Fails on read errors and on cancellation.
  std::expected<const AVFrame*, MediaError> nextFrame();

  // Packets whose timestamp is below `timestamp` are decoded without their non-reference frames:
  // those frames cannot be the ones asked for and nothing else depends on them. Reset by seek().
  void skipNonReferenceFramesBefore(std::int64_t timestamp) { m_skipBefore = timestamp; }
  // For a caller that wants only the last frame shown before `target` and the frames from
  // `target` on: a non-reference frame shown before `target` is not decoded once a packet shown
  // after it, but still before `target`, has been read. A B-frame is read after the later frame
  // it refers to, so most B-frames are skipped without reading ahead. Reset by seek().
  void keepOnlyTheLastFrameBefore(std::int64_t target) {
    m_lastFrameTarget = target;
    m_latestBelowTarget = AV_NOPTS_VALUE;
  }

  // The decode timestamp of the indexed keyframe at or before `timestamp`, where decoding must
  // start to reach it; nullopt when the container has no index.
  std::optional<std::int64_t> keyframeAtOrBefore(std::int64_t timestamp) const;

  static constexpr int kMaxRestarts = 3;

  // Frames taken from the decoder since open (including ones dropped while seeking), for tests
  // and benchmarks.
  std::int64_t framesDecoded() const { return m_framesDecoded; }

 private:
  VideoDecoder(std::shared_ptr<const MediaAsset> asset, MediaInput input)
      : m_asset(std::move(asset)), m_input(std::move(input)) {}
  // Feeds the decoder one packet (or the end-of-stream marker); false once nothing is left.
  std::expected<bool, MediaError> feed();
  // Repositions the demuxer on the keyframe at or before `timestamp` and flushes the decoder.
  std::expected<void, MediaError> reposition(std::int64_t timestamp);
  // Starts decoding again one keyframe further back than the last attempt; false when the
  // attempts are used up or there is nothing further back.
  bool restartEarlier();

  std::shared_ptr<const MediaAsset> m_asset;
  MediaInput m_input;
  CodecContextPtr m_codec;
  PacketPtr m_packet;
  FramePtr m_frame;
  std::int64_t m_skipBefore = AV_NOPTS_VALUE;
  std::int64_t m_lastFrameTarget = AV_NOPTS_VALUE;
  std::int64_t m_latestBelowTarget = AV_NOPTS_VALUE;  // latest timestamp read before that target
  std::int64_t m_seekTarget = AV_NOPTS_VALUE;         // until the first good frame after a seek
  std::int64_t m_landingDts = AV_NOPTS_VALUE;         // first packet read after the seek itself
  std::int64_t m_lastDts = AV_NOPTS_VALUE;            // last packet fed since the last reposition
  int m_restarts = 0;
  std::int64_t m_framesDecoded = 0;
  bool m_draining = false;
};

}  // namespace vantrix
