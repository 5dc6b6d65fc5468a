#include "media/AudioSampleSource.h"

#include <algorithm>
#include <limits>

namespace vantrix {
namespace {

// Decoding restarts this far before a requested index, so that codecs with priming (AAC) have
// settled by the first sample that is used.
constexpr int kPrerollDivisor = 10;  // 1/10 s
// Timestamps may wobble by a few samples; only larger jumps are gaps or overlaps to repair.
constexpr int kDiscontinuityDivisor = 50;  // 20 ms

}  // namespace

AudioSampleSource::AudioSampleSource(std::shared_ptr<const MediaAsset> asset, MediaInput input, int rate)
    : m_asset(std::move(asset)), m_input(std::move(input)), m_rate(rate) {}

AudioSampleSource::~AudioSampleSource() {
  av_channel_layout_uninit(&m_layout);
  av_channel_layout_uninit(&m_resamplerInput);
}

std::expected<std::unique_ptr<AudioSampleSource>, MediaError> AudioSampleSource::open(
    std::shared_ptr<const MediaAsset> asset, const AVChannelLayout& layout, int rate, std::stop_token stop) {
  const std::string name = asset->path().filename().string();
  if (!asset->audio()) return std::unexpected(MediaError::own(MediaError::Code::internal, "No audio in " + name));
  auto input = MediaInput::open(asset->path(), std::move(stop));
  if (!input) return std::unexpected(input.error());
  if (auto same = asset->checkUnchanged(); !same) return std::unexpected(same.error());
  AVFormatContext* ctx = input->context();
  const int index = asset->audio()->streamIndex;
  if (index >= static_cast<int>(ctx->nb_streams))
    return std::unexpected(MediaError::own(MediaError::Code::damagedMedia, name + " changed since it was opened"));
  for (unsigned i = 0; i < ctx->nb_streams; ++i)
    ctx->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  const AVStream* st = ctx->streams[index];
  const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
  if (codec == nullptr) return std::unexpected(MediaError::own(MediaError::Code::noDecoder, "Decoding the sound of " + name));

  std::unique_ptr<AudioSampleSource> source(new AudioSampleSource(std::move(asset), std::move(*input), rate));
  source->m_codec.reset(avcodec_alloc_context3(codec));
  source->m_packet = makePacket();
  source->m_frame = makeFrame();
  if (!source->m_codec || !source->m_packet || !source->m_frame)
    return std::unexpected(MediaError::ffmpeg(AVERROR(ENOMEM), "Decoding the sound of " + name));
  if (const int r = avcodec_parameters_to_context(source->m_codec.get(), st->codecpar); r < 0)
    return std::unexpected(MediaError::ffmpeg(r, "Configuring the sound decoder for " + name));
  source->m_codec->pkt_timebase = st->time_base;
  if (const int r = avcodec_open2(source->m_codec.get(), codec, nullptr); r < 0)
    return std::unexpected(MediaError::ffmpeg(r, "Opening the sound decoder for " + name));
  if (const int r = av_channel_layout_copy(&source->m_layout, &layout); r < 0)
    return std::unexpected(MediaError::ffmpeg(r, "Preparing the sound of " + name));
  source->m_buffer.resize(static_cast<std::size_t>(layout.nb_channels));
  return source;
}

std::expected<void, MediaError> AudioSampleSource::read(std::int64_t index, int count, float* const* planes, int offset) {
  const auto bufferEnd = [&] { return m_bufferStart + static_cast<std::int64_t>(m_buffer[0].size()); };
  const bool behind = m_anchored && index < m_silentFrom;
  // Far ahead of what is decoded: seeking beats decoding the way there (unless the sound ended).
  const bool farAhead = m_anchored && !m_ended && index > bufferEnd() + m_rate;
  if (!m_anchored && !m_ended) {
    if (auto ok = restartAt(index); !ok) return ok;
  } else if (behind || farAhead) {
    if (auto ok = restartAt(index); !ok) return ok;
  }
  for (std::size_t c = 0; c < m_buffer.size(); ++c) std::fill_n(planes[c] + offset, count, 0.0f);
  // What the buffer holds of the request is copied out before each decoding step: a long gap
  // moves the buffer past it (see append).
  const auto copyOut = [&] {
    if (!m_anchored) return;
    const std::int64_t from = std::max(index, m_bufferStart);
    const std::int64_t to = std::min(index + count, bufferEnd());
    for (std::size_t c = 0; c < m_buffer.size(); ++c)
      for (std::int64_t at = from; at < to; ++at)
        planes[c][offset + (at - index)] = m_buffer[c][static_cast<std::size_t>(at - m_bufferStart)];
  };
  while (!m_ended && (!m_anchored || bufferEnd() < index + count)) {
    copyOut();
    auto more = decodeMore();
    if (!more) return std::unexpected(more.error());
  }
  copyOut();
  dropBefore(index);
  return {};
}

void AudioSampleSource::dropBefore(std::int64_t index) {
  if (!m_anchored || index <= m_bufferStart) return;
  const auto n = static_cast<std::size_t>(std::min<std::int64_t>(index - m_bufferStart, static_cast<std::int64_t>(m_buffer[0].size())));
  for (auto& channel : m_buffer) channel.erase(channel.begin(), channel.begin() + static_cast<std::ptrdiff_t>(n));
  m_bufferStart += static_cast<std::int64_t>(n);
  m_silentFrom = m_bufferStart;
}

std::expected<void, MediaError> AudioSampleSource::restartAt(std::int64_t index) {
  const AudioTrack& track = *m_asset->audio();
  const std::int64_t from = std::max<std::int64_t>(0, index - m_rate / kPrerollDivisor);
  const std::int64_t ts = m_asset->timestampForSourceTime(RationalTime(from, m_rate), track.timeBase);
  constexpr std::int64_t lo = std::numeric_limits<std::int64_t>::min();
  if (avformat_seek_file(m_input.context(), track.streamIndex, lo, ts, ts, 0) < 0) {
    const int r = avformat_seek_file(m_input.context(), track.streamIndex, lo, lo, ts, 0);
    if (r < 0)
      return std::unexpected(mediaCallFailed(r, m_input.stopRequested(),
                                             "Seeking in the sound of " + m_asset->path().filename().string()));
  }
  avcodec_flush_buffers(m_codec.get());
  m_resampler.reset();
  for (auto& channel : m_buffer) channel.clear();
  m_bufferStart = 0;
  m_anchored = false;
  m_ended = false;
  return {};
}

std::expected<bool, MediaError> AudioSampleSource::decodeMore() {
  const std::string name = m_asset->path().filename().string();
  for (;;) {
    const int r = avcodec_receive_frame(m_codec.get(), m_frame.get());
    if (r == 0) {
      auto ok = append(m_frame.get());
      av_frame_unref(m_frame.get());
      if (!ok) return std::unexpected(ok.error());
      return true;
    }
    if (r == AVERROR_EOF) {
      m_ended = true;
      return false;
    }
    if (m_input.stopRequested())
      return std::unexpected(MediaError::own(MediaError::Code::cancelled, "Decoding the sound of " + name));
    const int read = m_input.read(m_packet.get());
    PacketUnref unref(m_packet.get());
    if (read == AVERROR_EOF) {
      avcodec_send_packet(m_codec.get(), nullptr);
      continue;
    }
    if (read < 0) return std::unexpected(mediaCallFailed(read, m_input.stopRequested(), "Reading the sound of " + name));
    if (m_packet->stream_index != m_asset->audio()->streamIndex) continue;
    // A damaged packet is concealed by skipping it; the gap it leaves is filled with silence.
    avcodec_send_packet(m_codec.get(), m_packet.get());
  }
}

std::expected<void, MediaError> AudioSampleSource::configureResampler(const AVFrame& frame) {
  AVChannelLayout in{};
  if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_default(&in, frame.ch_layout.nb_channels);
  else av_channel_layout_copy(&in, &frame.ch_layout);
  const bool same = m_resampler && av_channel_layout_compare(&in, &m_resamplerInput) == 0 &&
                    frame.sample_rate == m_resamplerInputRate && frame.format == m_resamplerInputFormat;
  if (same) {
    av_channel_layout_uninit(&in);
    return {};
  }
  SwrContext* raw = nullptr;
  int r = swr_alloc_set_opts2(&raw, &m_layout, AV_SAMPLE_FMT_FLTP, m_rate, &in,
                              static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
  m_resampler.reset(raw);
  if (r >= 0) r = swr_init(raw);
  av_channel_layout_uninit(&m_resamplerInput);
  m_resamplerInput = in;
  m_resamplerInputRate = frame.sample_rate;
  m_resamplerInputFormat = frame.format;
  if (r < 0) {
    m_resampler.reset();
    return std::unexpected(MediaError::ffmpeg(r, "Resampling the sound of " + m_asset->path().filename().string()));
  }
  return {};
}

std::expected<void, MediaError> AudioSampleSource::append(const AVFrame* frame) {
  if (auto ok = configureResampler(*frame); !ok) return ok;
  const int channels = static_cast<int>(m_buffer.size());
  const int capacity = swr_get_out_samples(m_resampler.get(), frame->nb_samples);
  if (capacity <= 0) return {};
  m_scratch.resize(static_cast<std::size_t>(capacity) * static_cast<std::size_t>(channels));
  std::vector<std::uint8_t*> out(static_cast<std::size_t>(channels));
  for (int c = 0; c < channels; ++c)
    out[static_cast<std::size_t>(c)] = reinterpret_cast<std::uint8_t*>(m_scratch.data() + static_cast<std::ptrdiff_t>(c) * capacity);
  const int produced = swr_convert(m_resampler.get(), out.data(), capacity,
                                   const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples);
  if (produced < 0)
    return std::unexpected(MediaError::ffmpeg(produced, "Resampling the sound of " + m_asset->path().filename().string()));

  // Where this frame belongs, by its own timestamp; without one, or with one far from the video
  // (damaged), it follows the previous frame.
  const std::int64_t bufferEnd = m_bufferStart + static_cast<std::int64_t>(m_buffer[0].size());
  std::int64_t start = bufferEnd;
  if (frame->best_effort_timestamp != AV_NOPTS_VALUE)
    start = m_asset->sampleIndexForTimestamp(frame->best_effort_timestamp, m_asset->audio()->timeBase, m_rate)
                .value_or(bufferEnd);
  int skip = 0;
  if (!m_anchored) {
    m_bufferStart = start;
    m_silentFrom = start;
    m_anchored = true;
  } else if (start > bufferEnd + m_rate) {
    // A gap longer than a second (a pause in the recording, or a damaged timestamp) is not filled
    // in: hours of silence would take gigabytes. The buffer starts again at this frame, and reads
    // in between are silent without decoding.
    for (auto& channel : m_buffer) channel.clear();
    m_silentFrom = bufferEnd;
    m_bufferStart = start;
  } else if (start > bufferEnd + m_rate / kDiscontinuityDivisor) {
    for (auto& channel : m_buffer) channel.insert(channel.end(), static_cast<std::size_t>(start - bufferEnd), 0.0f);
  } else if (start < bufferEnd - m_rate / kDiscontinuityDivisor) {
    skip = static_cast<int>(std::min<std::int64_t>(bufferEnd - start, produced));
  }
  for (int c = 0; c < channels; ++c) {
    const float* samples = m_scratch.data() + static_cast<std::ptrdiff_t>(c) * capacity;
    m_buffer[static_cast<std::size_t>(c)].insert(m_buffer[static_cast<std::size_t>(c)].end(), samples + skip, samples + produced);
  }
  return {};
}

}  // namespace vantrix
