#pragma once

#include "media/FfmpegPtr.h"
#include "media/MediaAsset.h"
#include "media/MediaError.h"
#include "media/MediaInput.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <cstdint>
#include <deque>
#include <expected>
#include <memory>
#include <stop_token>
#include <vector>

namespace vantrix {

// The source's audio track, decoded and resampled to planar float at a fixed rate and layout,
// addressed by sample index in source time: index i is source time i / rate (source time zero is
// the first shown video frame). Where the source has no sound for an index (before its audio
// starts, after it ends, in gaps) the samples are silence.
//
// Reading forward is sequential decoding; a jump backwards or far ahead seeks the demuxer.
// Used by one worker thread at a time; blocking.
class AudioSampleSource {
 public:
  static std::expected<std::unique_ptr<AudioSampleSource>, MediaError> open(std::shared_ptr<const MediaAsset> asset,
                                                                            const AVChannelLayout& layout, int rate,
                                                                            std::stop_token stop);
  ~AudioSampleSource();

  void setStopToken(std::stop_token stop) { m_input.setStopToken(std::move(stop)); }

  // Writes samples [index, index + count) into planes[c] + offset for every channel.
  std::expected<void, MediaError> read(std::int64_t index, int count, float* const* planes, int offset);

 private:
  AudioSampleSource(std::shared_ptr<const MediaAsset> asset, MediaInput input, int rate);
  // Drops buffered samples and continues decoding from a little before `index`.
  std::expected<void, MediaError> restartAt(std::int64_t index);
  // Decodes the next frame into the buffer; false at the end of the stream.
  std::expected<bool, MediaError> decodeMore();
  std::expected<void, MediaError> append(const AVFrame* frame);
  std::expected<void, MediaError> configureResampler(const AVFrame& frame);
  void dropBefore(std::int64_t index);

  std::shared_ptr<const MediaAsset> m_asset;
  MediaInput m_input;
  int m_rate;
  AVChannelLayout m_layout{};
  CodecContextPtr m_codec;
  SwrContextPtr m_resampler;
  AVChannelLayout m_resamplerInput{};
  int m_resamplerInputRate = 0;
  int m_resamplerInputFormat = -1;
  PacketPtr m_packet;
  FramePtr m_frame;
  // Buffered samples [m_bufferStart, m_bufferStart + m_buffer[0].size()), one deque per channel.
  std::vector<std::deque<float>> m_buffer;
  std::int64_t m_bufferStart = 0;
  // [m_silentFrom, m_bufferStart) is a long gap in the sound, silent without decoding.
  std::int64_t m_silentFrom = 0;
  bool m_anchored = false;  // whether m_bufferStart was set from a decoded timestamp since the restart
  bool m_ended = false;
  std::vector<float> m_scratch;
};

}  // namespace vantrix
