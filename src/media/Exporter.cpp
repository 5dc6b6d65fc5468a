#include "media/Exporter.h"

#include "media/CompositionReader.h"
#include "media/MediaLog.h"
#include "media/Mp4Writer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <variant>
#include <vector>

namespace vantrix::Exporter {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kProgressInterval = std::chrono::milliseconds(100);
constexpr std::size_t kQueuedFrames = 6;  // decoded pictures waiting for the encoder
constexpr int kAudioChunk = 4096;

// Pictures handed from the decoding thread to the encoding thread: a small bounded queue, so the
// decoder works ahead of the encoder without holding many frames.
class FrameQueue {
 public:
  using Item = std::variant<CompositionReader::VideoFrame, MediaError, std::monostate>;  // monostate: the end

  void push(Item item, const std::stop_token& stop) {
    std::unique_lock lock(m_mutex);
    m_space.wait(lock, stop, [&] { return m_items.size() < kQueuedFrames; });
    m_items.push_back(std::move(item));
    m_ready.notify_one();
  }
  // Nothing (an empty optional) once `stop` is triggered.
  std::optional<Item> pop(const std::stop_token& stop) {
    std::unique_lock lock(m_mutex);
    if (!m_ready.wait(lock, stop, [&] { return !m_items.empty(); })) return std::nullopt;
    Item item = std::move(m_items.front());
    m_items.pop_front();
    m_space.notify_one();
    return item;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable_any m_ready;
  std::condition_variable_any m_space;
  std::deque<Item> m_items;
};

VideoEncoding encodingFor(const Composition& composition) {
  const VideoTrack& track = *composition.asset()->video();
  VideoEncoding e;
  e.width = track.width;
  e.height = track.height;
  e.pixelFormat = track.pixelFormat;
  e.sampleAspectRatio = track.sampleAspectRatio.num > 0 ? track.sampleAspectRatio : AVRational{1, 1};
  e.frameRate = track.frameRate.num > 0 ? track.frameRate : AVRational{30, 1};
  // The source's own clock when it is fine enough, so that normal-speed frames keep their exact
  // times; 1/90000 s otherwise.
  e.timeBase = track.timeBase.num == 1 && track.timeBase.den >= 1000 ? track.timeBase : AVRational{1, 90000};
  e.colour = track.colour;
  e.transform = composition.transform();
  return e;
}

// Seconds of source read per second of output: 1 without speed-ups, at most 16.
double sourcePerOutput(const Composition& composition) {
  double source = 0;
  for (const CompositionEdit& edit : composition.videoEdits()) source += edit.sourceDuration.seconds();
  return source / composition.duration().seconds();
}

std::int64_t ticks(RationalTime t, AVRational timeBase) { return t.convertedToTimescale(timeBase.den).value(); }

// Everything one export run needs on the encoding thread.
class Run {
 public:
  Run(std::shared_ptr<const Composition> composition, Mp4Writer writer, CompositionReader reader,
      const ProgressCallback& progress, std::stop_token stop)
      : m_composition(std::move(composition)),
        m_writer(std::move(writer)),
        m_reader(std::move(reader)),
        m_progress(progress),
        m_stop(std::move(stop)),
        m_timeBase(encodingFor(*m_composition).timeBase) {}

  std::expected<void, MediaError> execute() {
    std::stop_source decoding;
    std::stop_callback forward(m_stop, [&] { decoding.request_stop(); });
    m_reader.setStopToken(decoding.get_token());
    FrameQueue queue;
    std::jthread decoder([&](std::stop_token) { decodeInto(queue, decoding.get_token()); });
    auto result = encodeFrom(queue, decoding.get_token());
    decoding.request_stop();  // ends the decoder if the encoder stopped first
    return result;
  }

 private:
  void decodeInto(FrameQueue& queue, const std::stop_token& stop) {
    for (;;) {
      auto frame = m_reader.nextVideoFrame();
      if (!frame) return queue.push(frame.error(), stop);
      if (!*frame) return queue.push(std::monostate{}, stop);
      queue.push(std::move(**frame), stop);
      if (stop.stop_requested()) return;
    }
  }

  std::expected<void, MediaError> encodeFrom(FrameQueue& queue, const std::stop_token& stop) {
    const RationalTime duration = m_composition->duration();
    std::optional<CompositionReader::VideoFrame> pending;  // written once the next frame's time is known
    for (;;) {
      auto item = queue.pop(stop);
      if (!item) return std::unexpected(MediaError::own(MediaError::Code::cancelled, "Export"));
      if (auto* error = std::get_if<MediaError>(&*item)) return std::unexpected(std::move(*error));
      const bool ended = std::holds_alternative<std::monostate>(*item);
      const RationalTime nextTime = ended ? duration : std::get<CompositionReader::VideoFrame>(*item).outputTime;
      if (pending) {
        if (auto ok = writeFrame(*pending, nextTime); !ok) return ok;
      }
      if (ended) break;
      pending = std::move(std::get<CompositionReader::VideoFrame>(*item));
      if (auto ok = checkSource(); !ok) return ok;
    }
    if (auto ok = writeAudioUntil(CompositionReader::audioSampleAt(duration)); !ok) return ok;
    if (auto ok = checkSource(true); !ok) return ok;
    return m_writer.finish();
  }

  // Writes `frame`, shown until `until`, and the sound up to `until`. A frame that would last less
  // than one tick of the output clock is left out: the next one starts at the same tick.
  std::expected<void, MediaError> writeFrame(const CompositionReader::VideoFrame& frame, RationalTime until) {
    const std::int64_t pts = ticks(frame.outputTime, m_timeBase);
    const std::int64_t end = ticks(until, m_timeBase);
    if (end > pts) {
      if (auto ok = m_writer.writeVideo(*frame.picture, pts, end - pts); !ok) return ok;
    }
    if (auto ok = writeAudioUntil(CompositionReader::audioSampleAt(until)); !ok) return ok;
    report(until);
    return {};
  }

  std::expected<void, MediaError> writeAudioUntil(std::int64_t sample) {
    if (!m_writer.hasAudio()) return {};
    const int channels = m_writer.audioLayout()->nb_channels;
    if (m_audio.empty()) {
      m_audio.assign(static_cast<std::size_t>(channels), std::vector<float>(kAudioChunk));
      for (auto& plane : m_audio) m_planes.push_back(plane.data());
    }
    while (m_writer.audioSamplesWritten() < sample) {
      const int want = static_cast<int>(std::min<std::int64_t>(kAudioChunk, sample - m_writer.audioSamplesWritten()));
      auto got = m_reader.readAudio(m_planes.data(), want);
      if (!got) return std::unexpected(got.error());
      if (*got == 0) return m_writer.writeSilence(want);  // the sound ran out before the picture
      if (auto ok = m_writer.writeAudio(m_planes.data(), *got); !ok) return ok;
    }
    return {};
  }

  void report(RationalTime position) {
    const auto now = Clock::now();
    if (!m_progress || now - m_lastReport < kProgressInterval) return;
    const RationalTime duration = m_composition->duration();
    const double fraction = duration.value() > 0 ? std::clamp(position.seconds() / duration.seconds(), 0.0, 1.0) : 0.0;
    // Reported values never go down, and 1.0 is kept for the very end.
    if (fraction <= m_lastFraction || fraction >= 1.0) return;
    m_lastFraction = fraction;
    m_lastReport = now;
    m_progress(fraction);
  }

  // An open file stays readable after it is deleted, moved or replaced, and one cut short in place
  // reads as an early end; so a source that is no longer the file opened has to be noticed by
  // looking: checked with each progress step and once at the end.
  std::expected<void, MediaError> checkSource(bool now = false) {
    const auto t = Clock::now();
    if (!now && t - m_lastSourceCheck < kProgressInterval) return {};
    m_lastSourceCheck = t;
    return m_composition->asset()->checkUnchanged();
  }

  std::shared_ptr<const Composition> m_composition;
  Mp4Writer m_writer;
  CompositionReader m_reader;
  const ProgressCallback& m_progress;
  std::stop_token m_stop;
  AVRational m_timeBase;
  std::vector<std::vector<float>> m_audio;
  std::vector<float*> m_planes;
  Clock::time_point m_lastReport = Clock::now();
  Clock::time_point m_lastSourceCheck = Clock::now();
  double m_lastFraction = 0;
};

std::expected<Outcome, AppError> failed(const MediaError& error, const std::stop_token& stop) {
  if (stop.stop_requested() || error.is(MediaError::Code::cancelled)) return Outcome::cancelled;
  if (error.isOutOfDiskSpace()) return std::unexpected(AppError::diskFull());
  qCCritical(lcMedia, "Export failed: %s", error.description().c_str());
  return std::unexpected(AppError::exportFailed(error));
}

}  // namespace

std::expected<Outcome, AppError> exportComposition(std::shared_ptr<const Composition> composition,
                                                   const std::filesystem::path& destination,
                                                   const ProgressCallback& progress, std::stop_token stop) {
  const std::string name = destination.filename().string();
  if (!composition || !composition->asset()->video() || composition->videoEdits().empty()) {
    qCCritical(lcMedia, "Could not create export session for composition.");
    return std::unexpected(AppError::exportFailed(MediaError::own(MediaError::Code::exportUnavailable, "Exporting " + name)));
  }

  AVChannelLayout sourceLayout{};
  if (composition->hasAudioTrack()) {
    const AudioTrack& audio = *composition->asset()->audio();
    if (audio.channelMask != 0) av_channel_layout_from_mask(&sourceLayout, audio.channelMask);
    else av_channel_layout_default(&sourceLayout, std::max(1, audio.channelCount));
  }
  auto writer = Mp4Writer::create(destination, encodingFor(*composition),
                                  composition->hasAudioTrack() ? &sourceLayout : nullptr);
  av_channel_layout_uninit(&sourceLayout);
  if (!writer) {
    if (!writer.error().is(MediaError::Code::exportUnavailable)) return failed(writer.error(), stop);
    qCCritical(lcMedia, "Could not create export session for composition.");
    return std::unexpected(AppError::exportFailed(writer.error()));
  }

  CompositionReader::Options options;
  options.audioLayout = writer->audioLayout();
  // Decoding threads: where the edit reads little more source than it writes, one thread stays well
  // ahead of the encoder, and frame-threaded decoding would take about a tenth more processor time
  // from it; long sped-up stretches read up to 16 source frames per output frame and need them.
  options.decoderThreads = sourcePerOutput(*composition) < 4 ? 1 : 0;
  auto reader = CompositionReader::open(composition, stop, options);
  if (!reader) return failed(reader.error(), stop);

  Run run(composition, std::move(*writer), std::move(*reader), progress, stop);
  if (auto done = run.execute(); !done) return failed(done.error(), stop);

  if (progress) progress(1.0);
  if (stop.stop_requested()) {
    // Cancelled after the file was complete: it still must not survive.
    std::error_code ignored;
    std::filesystem::remove(destination, ignored);
    return Outcome::cancelled;
  }
  qCInfo(lcMedia, "Export completed: %s", name.c_str());
  return Outcome::finished;
}

std::string suggestedOutputName(const std::filesystem::path& source, const std::set<std::string>& avoid) {
  const std::string base = source.stem().string();
  std::string candidate = base + "-vantrix.mp4";
  for (int n = 2; avoid.contains(candidate); ++n) candidate = base + "-vantrix " + std::to_string(n) + ".mp4";
  return candidate;
}

}  // namespace vantrix::Exporter
