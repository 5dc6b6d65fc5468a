// Reading files back: each video frame's time and barcode, upright pictures, the tone per window.

#include "FixtureDecoding.h"
#include "MediaFixture.h"

extern "C" {
#include <libavutil/display.h>
}

#include <QTransform>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <tuple>
#include <utility>

namespace vantrix::testing {

std::optional<OpenedStream> openFirstStream(const std::filesystem::path& file, AVMediaType type) {
  AVFormatContext* raw = nullptr;
  if (avformat_open_input(&raw, file.c_str(), nullptr, nullptr) < 0) return std::nullopt;
  OpenedStream opened{InputContextPtr(raw), nullptr};
  if (avformat_find_stream_info(raw, nullptr) < 0) return std::nullopt;
  for (unsigned i = 0; i < raw->nb_streams && opened.stream == nullptr; ++i)
    if (raw->streams[i]->codecpar->codec_type == type && !(raw->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC))
      opened.stream = raw->streams[i];
  const AVCodec* codec = opened.stream ? avcodec_find_decoder(opened.stream->codecpar->codec_id) : nullptr;
  if (codec == nullptr) return std::nullopt;
  opened.decoder.reset(avcodec_alloc_context3(codec));
  if (!opened.decoder || avcodec_parameters_to_context(opened.decoder.get(), opened.stream->codecpar) < 0)
    return std::nullopt;
  opened.decoder->pkt_timebase = opened.stream->time_base;
  if (avcodec_open2(opened.decoder.get(), codec, nullptr) < 0) return std::nullopt;
  return opened;
}

bool decodeAll(OpenedStream& opened, const std::function<void(const AVFrame&)>& onFrame) {
  AVCodecContext* decoder = opened.decoder.get();
  PacketPtr packet(av_packet_alloc());
  FramePtr frame(av_frame_alloc());
  if (!packet || !frame) return false;
  auto receiveAll = [&] {
    for (;;) {
      const int result = avcodec_receive_frame(decoder, frame.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
      if (result < 0) return false;
      onFrame(*frame);
      av_frame_unref(frame.get());
    }
  };
  for (int read; (read = av_read_frame(opened.input.get(), packet.get())) != AVERROR_EOF;) {
    if (read < 0) return false;
    const int sent = packet->stream_index == opened.stream->index ? avcodec_send_packet(decoder, packet.get()) : 0;
    av_packet_unref(packet.get());
    if (sent < 0 || !receiveAll()) return false;
  }
  return avcodec_send_packet(decoder, nullptr) >= 0 && receiveAll();
}

namespace {

RationalTime ticks(std::int64_t value, AVRational timeBase) { return {value * timeBase.num, timeBase.den}; }

// The first audio stream mixed to mono on a timeline from time 0: samples before 0 are dropped, a late start is padded
// with silence. Float or 16-bit samples, as the fixtures' decoders give.
std::vector<double> monoFromTimeZero(OpenedStream& opened, int& sampleRate) {
  std::vector<double> mono;
  bool placed = false;
  decodeAll(opened, [&](const AVFrame& frame) {
    sampleRate = frame.sample_rate;
    std::int64_t skip = 0;
    if (!placed && frame.best_effort_timestamp != AV_NOPTS_VALUE) {
      const std::int64_t start =
          av_rescale_q(frame.best_effort_timestamp, opened.stream->time_base, {1, frame.sample_rate});
      if (start > 0) mono.assign(static_cast<std::size_t>(start), 0.0);
      skip = -start;
    }
    placed = true;
    const auto format = static_cast<AVSampleFormat>(frame.format);
    const bool planar = av_sample_fmt_is_planar(format) != 0,
               floats = av_get_packed_sample_fmt(format) == AV_SAMPLE_FMT_FLT;
    const int channels = frame.ch_layout.nb_channels;
    for (int i = static_cast<int>(std::max<std::int64_t>(skip, 0)); i < frame.nb_samples; ++i) {
      double sum = 0;
      for (int ch = 0; ch < channels; ++ch) {
        const uint8_t* data = frame.extended_data[planar ? ch : 0];
        const int at = planar ? i : i * channels + ch;
        sum += floats ? reinterpret_cast<const float*>(data)[at] : reinterpret_cast<const int16_t*>(data)[at] / 32768.0;
      }
      mono.push_back(sum / channels);
    }
  });
  return mono;
}

// The second whose tone carries half the window's energy or more, -1 for digital silence, else -2: Goertzel filters
// over the Hann-weighted samples, scaled so that a pure sine gives 1 wherever its phase and the window fall.
int classify(const double* samples, std::size_t count, int sampleRate) {
  if (std::all_of(samples, samples + count, [](double x) { return std::abs(x) < 0.5 / 32768; })) return -1;
  std::vector<double> weighted(count);
  double energy = 0, weightSum = 0, weightSquares = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const double w =
        0.5 - 0.5 * std::cos(2 * std::numbers::pi * (static_cast<double>(i) + 0.5) / static_cast<double>(count));
    weighted[i] = w * samples[i];
    energy += weighted[i] * weighted[i];
    weightSum += w;
    weightSquares += w * w;
  }
  int best = -2;
  double bestShare = 0.5;
  for (int second = 0; second < kDistinctToneSeconds; ++second) {
    const double coefficient = 2 * std::cos(2 * std::numbers::pi * toneForSecond(second) / sampleRate);
    double s1 = 0, s2 = 0;
    for (double x : weighted) s2 = std::exchange(s1, x + coefficient * s1 - s2);
    const double share =
        (s1 * s1 + s2 * s2 - coefficient * s1 * s2) * 2 * weightSquares / (weightSum * weightSum * energy);
    if (share >= bestShare) std::tie(bestShare, best) = std::pair(share, second);
  }
  return best;
}

}  // namespace

std::vector<DecodedFrame> readFrames(const std::filesystem::path& file) {
  std::vector<DecodedFrame> frames;
  auto opened = openFirstStream(file, AVMEDIA_TYPE_VIDEO);
  if (!opened) return frames;
  const AVStream& stream = *opened->stream;
  const auto* matrix =
      reinterpret_cast<const int32_t*>(av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr));
  const double counterClockwise = matrix ? av_display_rotation_get(matrix) : 0;
  const int rotation =
      std::isnan(counterClockwise) ? 0 : static_cast<int>((std::lround(-counterClockwise / 90) % 4 + 4) % 4 * 90);
  decodeAll(*opened, [&](const AVFrame& frame) {
    // The luma plane of the 8-bit pictures the fixtures decode to, shown upright: the code reads by contrast.
    QImage luma(frame.width, frame.height, QImage::Format_Grayscale8);
    for (int y = 0; y < frame.height; ++y)
      std::memcpy(luma.scanLine(y), frame.data[0] + static_cast<std::ptrdiff_t>(y) * frame.linesize[0],
                  static_cast<std::size_t>(std::min(frame.width, frame.linesize[0])));
    frames.push_back({ticks(frame.best_effort_timestamp, stream.time_base), ticks(frame.pkt_duration, stream.time_base),
                      readBarcode(rotation == 0 ? luma : luma.transformed(QTransform().rotate(rotation)))});
  });
  // With B-frames packet durations are guesses; the gaps between frame times and the stream's end are the truth.
  for (std::size_t i = 0; i + 1 < frames.size(); ++i) frames[i].duration = frames[i + 1].time - frames[i].time;
  // A declared end far beyond any frame's length is a placeholder (0xFFFFFFFF ticks in fragmented files).
  RationalTime longest = frames.empty() ? RationalTime::zero() : frames.back().duration;
  for (const DecodedFrame& f : frames) longest = std::max(longest, f.duration);
  if (frames.empty() || stream.start_time == AV_NOPTS_VALUE || stream.duration == AV_NOPTS_VALUE) return frames;
  const RationalTime end = ticks(stream.start_time + stream.duration, stream.time_base);
  if (end > frames.back().time && end - frames.back().time <= longest.multipliedBy(2))
    frames.back().duration = end - frames.back().time;
  return frames;
}

std::vector<int> dominantSeconds(const std::filesystem::path& file, double window) {
  std::vector<int> seconds;
  auto opened = openFirstStream(file, AVMEDIA_TYPE_AUDIO);
  if (!opened || !(window > 0)) return seconds;
  int sampleRate = opened->decoder->sample_rate;
  const std::vector<double> mono = monoFromTimeZero(*opened, sampleRate);
  const auto total = static_cast<std::int64_t>(mono.size());
  for (std::int64_t k = 0;; ++k) {
    const std::int64_t start = std::llround(static_cast<double>(k) * window * sampleRate);
    const std::int64_t end = std::llround(static_cast<double>(k + 1) * window * sampleRate);
    if (end <= start || 2 * (std::min(end, total) - start) < end - start) break;  // less than half covered
    seconds.push_back(
        classify(mono.data() + start, static_cast<std::size_t>(std::min(end, total) - start), sampleRate));
  }
  return seconds;
}

}  // namespace vantrix::testing
