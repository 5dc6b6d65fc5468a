#include "media/VideoDecoder.h"

#include <limits>

namespace vantrix {

std::expected<VideoDecoder, MediaError> VideoDecoder::open(std::shared_ptr<const MediaAsset> asset,
                                                           std::stop_token stop, int threads) {
  const std::string name = asset->path().filename().string();
  if (!asset->video()) return std::unexpected(MediaError::own(MediaError::Code::noUsableVideo, "Decoding " + name));
  auto input = MediaInput::open(asset->path(), std::move(stop));
  if (!input) return std::unexpected(input.error());
  if (auto same = asset->checkUnchanged(); !same) return std::unexpected(same.error());

  const VideoTrack& track = *asset->video();
  AVFormatContext* ctx = input->context();
  if (track.streamIndex >= static_cast<int>(ctx->nb_streams))
    return std::unexpected(MediaError::own(MediaError::Code::damagedMedia, name + " changed since it was opened"));
  for (unsigned i = 0; i < ctx->nb_streams; ++i)
    ctx->streams[i]->discard = static_cast<int>(i) == track.streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  const AVStream* st = ctx->streams[track.streamIndex];

  const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
  if (codec == nullptr) return std::unexpected(MediaError::own(MediaError::Code::noDecoder, "Decoding " + name));
  VideoDecoder decoder(std::move(asset), std::move(*input));
  decoder.m_codec.reset(avcodec_alloc_context3(codec));
  decoder.m_packet = makePacket();
  decoder.m_frame = makeFrame();
  if (!decoder.m_codec || !decoder.m_packet || !decoder.m_frame)
    return std::unexpected(MediaError::ffmpeg(AVERROR(ENOMEM), "Decoding " + name));
  if (const int r = avcodec_parameters_to_context(decoder.m_codec.get(), st->codecpar); r < 0)
    return std::unexpected(MediaError::ffmpeg(r, "Configuring the decoder for " + name));
  decoder.m_codec->pkt_timebase = st->time_base;
  decoder.m_codec->thread_count = threads;
  // Frames whose references are missing (after a seek into an open group of pictures) come out
  // flagged instead of being held back unseen, so that seek() can tell it started too late.
  decoder.m_codec->flags |= AV_CODEC_FLAG_OUTPUT_CORRUPT;
  if (const int r = avcodec_open2(decoder.m_codec.get(), codec, nullptr); r < 0)
    return std::unexpected(MediaError::ffmpeg(r, "Opening the decoder for " + name));
  return decoder;
}

std::expected<void, MediaError> VideoDecoder::seek(std::int64_t timestamp) {
  m_seekTarget = timestamp;
  m_restarts = 0;
  m_landingDts = AV_NOPTS_VALUE;
  m_skipBefore = AV_NOPTS_VALUE;
  m_lastFrameTarget = AV_NOPTS_VALUE;
  m_latestBelowTarget = AV_NOPTS_VALUE;
  return reposition(timestamp);
}

std::expected<void, MediaError> VideoDecoder::reposition(std::int64_t timestamp) {
  const int stream = track().streamIndex;
  const std::int64_t lo = std::numeric_limits<std::int64_t>::min();
  if (avformat_seek_file(m_input.context(), stream, lo, timestamp, timestamp, 0) < 0) {
    // Before the first keyframe there is nothing to land on: start from the beginning.
    const int r = avformat_seek_file(m_input.context(), stream, lo, lo, timestamp, 0);
    if (r < 0)
      return std::unexpected(
          mediaCallFailed(r, m_input.stopRequested(), "Seeking in " + m_asset->path().filename().string()));
  }
  avcodec_flush_buffers(m_codec.get());
  m_draining = false;
  m_lastDts = AV_NOPTS_VALUE;
  return {};
}

bool VideoDecoder::restartEarlier() {
  if (m_landingDts == AV_NOPTS_VALUE || m_restarts >= kMaxRestarts) return false;
  ++m_restarts;
  // Walk back through the index from where the seek landed, one keyframe more per attempt, so
  // that every attempt asks for an earlier point even when the demuxer rounds requests.
  AVStream* st = m_input.stream(track().streamIndex);
  std::int64_t request = m_landingDts;
  for (int step = 0; step < m_restarts; ++step) {
    const int i = av_index_search_timestamp(st, request - 1, AVSEEK_FLAG_BACKWARD);
    if (i < 0) {
      if (step == 0) return false;  // the landing keyframe is the first one
      break;
    }
    request = avformat_index_get_entry(st, i)->timestamp;
  }
  return reposition(request).has_value();
}

std::expected<bool, MediaError> VideoDecoder::feed() {
  if (m_draining) return false;
  const int stream = track().streamIndex;
  for (;;) {
    if (m_input.stopRequested())
      return std::unexpected(
          MediaError::own(MediaError::Code::cancelled, "Decoding " + m_asset->path().filename().string()));
    int r = m_input.read(m_packet.get());
    PacketUnref unref(m_packet.get());
    if (r >= 0 && m_packet->stream_index != stream) continue;
    // Decode timestamps only grow within a stream. Some demuxers jump back after a seek in files
    // with edit lists and would replay frames already shown: that is taken as the end.
    if (r >= 0 && m_packet->dts != AV_NOPTS_VALUE && m_lastDts != AV_NOPTS_VALUE && m_packet->dts <= m_lastDts)
      r = AVERROR_EOF;
    if (r == AVERROR_EOF) {
      m_draining = true;
      avcodec_send_packet(m_codec.get(), nullptr);
      return true;
    }
    if (r < 0)
      return std::unexpected(
          mediaCallFailed(r, m_input.stopRequested(), "Reading " + m_asset->path().filename().string()));
    if (m_packet->dts != AV_NOPTS_VALUE) {
      if (m_landingDts == AV_NOPTS_VALUE) m_landingDts = m_packet->dts;
      m_lastDts = m_packet->dts;
    }
    const std::int64_t ts = m_packet->pts != AV_NOPTS_VALUE ? m_packet->pts : m_packet->dts;
    bool skippable = false;
    if (ts != AV_NOPTS_VALUE) {
      skippable = (m_skipBefore != AV_NOPTS_VALUE && ts < m_skipBefore) ||
                  (m_latestBelowTarget != AV_NOPTS_VALUE && ts < m_latestBelowTarget);
      if (m_lastFrameTarget != AV_NOPTS_VALUE && ts < m_lastFrameTarget &&
          (m_latestBelowTarget == AV_NOPTS_VALUE || ts > m_latestBelowTarget))
        m_latestBelowTarget = ts;
    }
    m_codec->skip_frame = skippable ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
    // EAGAIN cannot happen: frames are always received before the next packet is sent. Any
    // other failure is a damaged packet, which the decoder conceals by skipping it.
    avcodec_send_packet(m_codec.get(), m_packet.get());
    return true;
  }
}

std::expected<const AVFrame*, MediaError> VideoDecoder::nextFrame() {
  for (;;) {
    const int r = avcodec_receive_frame(m_codec.get(), m_frame.get());
    if (r == 0) {
      ++m_framesDecoded;
      AVFrame& f = *m_frame;
      if (f.best_effort_timestamp == AV_NOPTS_VALUE) f.best_effort_timestamp = f.pts;
      // Frames whose references were not decoded lead the first group after a seek; never shown.
      if (f.flags & AV_FRAME_FLAG_CORRUPT) continue;
      if (m_seekTarget != AV_NOPTS_VALUE) {
        // The first good frame after a seek must not lie past the target, unless it opens the stream.
        const bool late = f.best_effort_timestamp > m_seekTarget && f.best_effort_timestamp > track().firstTimestamp;
        if (late && restartEarlier()) continue;
        m_seekTarget = AV_NOPTS_VALUE;
      }
      return m_frame.get();
    }
    if (r == AVERROR_EOF) {
      if (m_seekTarget != AV_NOPTS_VALUE && restartEarlier()) continue;  // nothing good came out
      m_seekTarget = AV_NOPTS_VALUE;
      return nullptr;
    }
    // EAGAIN, or a frame that failed to decode: either way the decoder wants the next packet.
    const auto fed = feed();
    if (!fed) return std::unexpected(fed.error());
    if (!*fed) return nullptr;
  }
}

std::optional<std::int64_t> VideoDecoder::keyframeAtOrBefore(std::int64_t timestamp) const {
  AVStream* st = m_input.stream(track().streamIndex);
  const int i = av_index_search_timestamp(st, timestamp, AVSEEK_FLAG_BACKWARD);
  if (i < 0) return std::nullopt;
  return avformat_index_get_entry(st, i)->timestamp;
}

}  // namespace vantrix
