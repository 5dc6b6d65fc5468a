#include "FixtureDecoding.h"
#include "MediaFixture.h"

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

namespace vantrix::testing {
namespace {

// A window whose samples all round to zero at 16 bits is digital silence.
constexpr double kSilenceLevel = 0.5 / 32768;
// A tone is recognised when it carries this share of the window's energy; a window cut half and
// half between two tones falls below it.
constexpr double kMinToneShare = 0.5;

double sampleAt(const AVFrame& frame, int channel, int index) {
  const auto format = static_cast<AVSampleFormat>(frame.format);
  const int channels = frame.ch_layout.nb_channels;
  const bool planar = av_sample_fmt_is_planar(format) != 0;
  const uint8_t* data = frame.extended_data[planar ? channel : 0];
  const int at = planar ? index : index * channels + channel;
  switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8: return (data[at] - 128) / 128.0;
    case AV_SAMPLE_FMT_S16: return reinterpret_cast<const int16_t*>(data)[at] / 32768.0;
    case AV_SAMPLE_FMT_S32: return reinterpret_cast<const int32_t*>(data)[at] / 2147483648.0;
    case AV_SAMPLE_FMT_FLT: return reinterpret_cast<const float*>(data)[at];
    case AV_SAMPLE_FMT_DBL: return reinterpret_cast<const double*>(data)[at];
    default: return 0;
  }
}

// The first audio stream mixed to mono (mean of the channels) on a timeline that starts at time 0:
// leading samples before 0 are dropped, a late start is padded with silence.
std::vector<double> monoFromTimeZero(OpenedStream& opened, int& sampleRate) {
  std::vector<double> mono;
  bool placed = false;
  const AVRational timeBase = opened.stream->time_base;
  decodeAll(opened, [&](const AVFrame& frame) {
    sampleRate = frame.sample_rate;
    std::int64_t skip = 0;
    if (!placed && frame.best_effort_timestamp != AV_NOPTS_VALUE) {
      const std::int64_t start = av_rescale_q(frame.best_effort_timestamp, timeBase, {1, frame.sample_rate});
      if (start > 0) mono.assign(static_cast<std::size_t>(start), 0.0);
      skip = -start;
    }
    placed = true;
    const int channels = frame.ch_layout.nb_channels;
    for (int i = static_cast<int>(std::max<std::int64_t>(skip, 0)); i < frame.nb_samples; ++i) {
      double sum = 0;
      for (int ch = 0; ch < channels; ++ch) sum += sampleAt(frame, ch, i);
      mono.push_back(sum / channels);
    }
  });
  return mono;
}

// Share of the window's energy at `frequency`: Goertzel filter over the Hann-weighted samples,
// scaled so that a pure sine at that frequency gives 1 wherever its phase and the window fall.
double toneShare(const std::vector<double>& weighted, double energy, double weightSum, double weightSquares,
                 double frequency, int sampleRate) {
  const double coefficient = 2 * std::cos(2 * std::numbers::pi * frequency / sampleRate);
  double s1 = 0, s2 = 0;
  for (double x : weighted) {
    const double s0 = x + coefficient * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  const double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
  return power * 2 * weightSquares / (weightSum * weightSum * energy);
}

int classify(const double* samples, std::size_t count, int sampleRate) {
  bool silent = true;
  for (std::size_t i = 0; i < count && silent; ++i) silent = std::abs(samples[i]) < kSilenceLevel;
  if (silent) return -1;
  std::vector<double> weighted(count);
  double energy = 0, weightSum = 0, weightSquares = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (static_cast<double>(i) + 0.5) / static_cast<double>(count));
    weighted[i] = w * samples[i];
    energy += weighted[i] * weighted[i];
    weightSum += w;
    weightSquares += w * w;
  }
  int best = -2;
  double bestShare = kMinToneShare;
  for (int second = 0; second < kDistinctToneSeconds; ++second) {
    const double share = toneShare(weighted, energy, weightSum, weightSquares, toneForSecond(second), sampleRate);
    if (share >= bestShare) {
      bestShare = share;
      best = second;
    }
  }
  return best;
}

}  // namespace

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
    if (end <= start || 2 * (std::min(end, total) - start) < end - start) break;
    seconds.push_back(classify(mono.data() + start, static_cast<std::size_t>(std::min(end, total) - start), sampleRate));
  }
  return seconds;
}

}  // namespace vantrix::testing
