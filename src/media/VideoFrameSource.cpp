#include "media/VideoFrameSource.h"

#include "media/TimeMath.h"

#include <algorithm>

namespace vantrix {
namespace {

FramePtr referenceTo(const AVFrame& frame) { return FramePtr(av_frame_clone(&frame)); }

}  // namespace

VideoFrameSource::VideoFrameSource(std::shared_ptr<const Composition> composition, VideoDecoder decoder)
    : m_composition(std::move(composition)), m_decoder(std::move(decoder)) {}

std::expected<std::unique_ptr<VideoFrameSource>, MediaError> VideoFrameSource::open(
    std::shared_ptr<const Composition> composition, std::stop_token stop, int decoderThreads) {
  auto decoder = VideoDecoder::open(composition->asset(), std::move(stop), decoderThreads);
  if (!decoder) return std::unexpected(decoder.error());
  std::unique_ptr<VideoFrameSource> source(new VideoFrameSource(std::move(composition), std::move(*decoder)));
  source->seek(RationalTime::zero());
  return source;
}

void VideoFrameSource::seek(RationalTime t) {
  const auto& edits = m_composition->videoEdits();
  const auto at = std::ranges::find_if(edits, [&](const CompositionEdit& e) { return t < e.outputEnd(); });
  m_edit = static_cast<std::size_t>(at - edits.begin());
  m_pendingStart = std::max(t, RationalTime::zero());
  if (at != edits.end() && *m_pendingStart < at->outputStart) m_pendingStart = at->outputStart;
}

void VideoFrameSource::replaceComposition(std::shared_ptr<const Composition> composition) {
  m_composition = std::move(composition);
  seek(RationalTime::zero());
}

std::expected<std::optional<VideoFrameSource::Frame>, MediaError> VideoFrameSource::next() {
  const auto& edits = m_composition->videoEdits();
  while (m_edit < edits.size()) {
    const CompositionEdit& edit = edits[m_edit];
    if (m_pendingStart) {
      const RationalTime t = *m_pendingStart;
      m_pendingStart.reset();
      return emitShowing(edit, t);
    }
    if (!edit.speed) {
      m_decoder.keepOnlyTheLastFrameBefore(AV_NOPTS_VALUE);  // every frame of the stretch is shown
      auto ahead = frameAfterHeld();
      if (!ahead) return std::unexpected(ahead.error());
      if (*ahead != nullptr && (*ahead)->sourceTime < edit.sourceEnd()) {
        promoteAhead();
        m_lastOutput = edit.outputStart + (m_held->sourceTime - edit.sourceStart);
        return Frame{referenceTo(*m_held->picture), m_lastOutput, m_held->sourceTime};
      }
    } else {
      const RationalTime t = gridInstant(m_lastOutput, 1);
      if (t < edit.outputEnd()) return emitShowing(edit, t);
    }
    if (++m_edit < edits.size()) m_pendingStart = edits[m_edit].outputStart;
  }
  return std::nullopt;
}

std::expected<std::optional<VideoFrameSource::Frame>, MediaError> VideoFrameSource::emitShowing(
    const CompositionEdit& edit, RationalTime t) {
  // In a sped-up edit the picture changes only at the edit's start and on the frame grid, so what
  // shows at t is the source frame sampled at the last of those instants at or before t.
  RationalTime sampled = t;
  if (edit.speed) {
    const RationalTime grid = gridInstant(t, 0);
    sampled = grid > edit.outputStart ? grid : edit.outputStart;
  }
  auto held = latestAtOrBefore(edit.sourceTimeAt(sampled));
  if (!held) return std::unexpected(held.error());
  if (*held == nullptr) {  // a stream without a single decodable frame
    m_edit = m_composition->videoEdits().size();
    return std::nullopt;
  }
  m_lastOutput = t;
  return Frame{referenceTo(*(*held)->picture), t, (*held)->sourceTime};
}

std::expected<const VideoFrameSource::Held*, MediaError> VideoFrameSource::latestAtOrBefore(RationalTime x) {
  if (m_held && m_held->sourceTime > x) stepBack(x);
  const Held* current = m_ahead ? &*m_ahead : m_held ? &*m_held : nullptr;
  bool reposition = !m_positioned || current == nullptr || (m_held ? m_held->sourceTime : current->sourceTime) > x;
  if (!reposition && current != nullptr && current->sourceTime < x) {
    // Far ahead: when a keyframe lies between here and x, starting from it skips the frames between.
    // The index holds decode times, which run ahead of presentation by the reordering delay; a
    // keyframe is taken only when it decodes a few frames before x, or it might show after x and
    // send the decoder back a whole group of pictures.
    const AVRational rate = m_decoder.track().frameRate;
    const AVRational base = m_decoder.track().timeBase;
    const std::int64_t margin = timemath::narrow(timemath::roundDiv(
        timemath::mul(kReorderFrames * static_cast<std::int64_t>(base.den), rate.den), timemath::mul(base.num, rate.num)));
    const auto keyframe = m_decoder.keyframeAtOrBefore(timestampOf(x) - margin);
    reposition = keyframe && *keyframe > timestampOf(current->sourceTime);
  }
  if (reposition) {
    if (auto ok = this->reposition(x); !ok) return std::unexpected(ok.error());
  }

  // Only the last frame at or before x is wanted from here to x: non-reference pictures followed
  // by another picture still before x need not be decoded.
  m_decoder.keepOnlyTheLastFrameBefore(timestampOf(x) + 1);
  for (;;) {
    auto ahead = frameAfterHeld();
    if (!ahead) return std::unexpected(ahead.error());
    if (*ahead == nullptr || (m_held && (*ahead)->sourceTime > x)) break;
    promoteAhead();
    if (m_held->sourceTime >= x) break;
  }
  // Pictures before x may have been left undecoded on the way: the kept ones are no longer a
  // complete run of frames to step back into.
  m_history.clear();
  return m_held ? &*m_held : nullptr;
}

void VideoFrameSource::promoteAhead() {
  if (m_held) {
    m_history.push_back(std::move(*m_held));
    if (m_history.size() > kHistoryFrames) m_history.pop_front();
  }
  m_held = std::move(m_ahead);
  m_ahead.reset();
}

void VideoFrameSource::stepBack(RationalTime x) {
  if (m_history.empty() || m_history.front().sourceTime > x) return;
  if (m_ahead) m_replay.push_front(std::move(*m_ahead));
  m_ahead.reset();
  m_replay.push_front(std::move(*m_held));
  while (m_history.back().sourceTime > x) {
    m_replay.push_front(std::move(m_history.back()));
    m_history.pop_back();
  }
  m_held = std::move(m_history.back());
  m_history.pop_back();
}

std::expected<const VideoFrameSource::Held*, MediaError> VideoFrameSource::frameAfterHeld() {
  if (!m_ahead && !m_replay.empty()) {
    m_ahead = std::move(m_replay.front());
    m_replay.pop_front();
  }
  while (!m_ahead && !m_streamEnded) {
    const auto frame = m_decoder.nextFrame();
    if (!frame) {
      m_positioned = false;  // stopped or failed half-way: where the decoder stands is unknown
      return std::unexpected(frame.error());
    }
    if (*frame == nullptr) {
      m_streamEnded = true;
      break;
    }
    const RationalTime t =
        m_composition->asset()->sourceTimeForTimestamp((*frame)->best_effort_timestamp, m_decoder.track().timeBase);
    // A damaged stream can repeat timestamps; a frame that does not move time forward is dropped.
    if (m_held && !(m_held->sourceTime < t)) continue;
    FramePtr picture = referenceTo(**frame);
    if (!picture) return std::unexpected(MediaError::ffmpeg(AVERROR(ENOMEM), "Keeping a decoded frame"));
    m_ahead = Held{std::move(picture), t};
  }
  return m_ahead ? &*m_ahead : nullptr;
}

std::expected<void, MediaError> VideoFrameSource::reposition(RationalTime x) {
  if (auto ok = m_decoder.seek(timestampOf(x)); !ok) return ok;
  m_held.reset();
  m_ahead.reset();
  m_history.clear();
  m_replay.clear();
  m_streamEnded = false;
  m_positioned = true;
  return {};
}

std::int64_t VideoFrameSource::timestampOf(RationalTime sourceTime) const {
  // The tick at or before the instant, not the nearest one: a frame that starts just after it is
  // not shown there.
  const MediaAsset& asset = *m_composition->asset();
  const AVRational base = m_decoder.track().timeBase;
  std::int64_t ticks = asset.timestampForSourceTime(sourceTime, base);
  if (asset.sourceTimeForTimestamp(ticks, base) > sourceTime) --ticks;
  return ticks;
}

RationalTime VideoFrameSource::gridInstant(RationalTime t, int step) const {
  using namespace timemath;
  const AVRational rate = m_decoder.track().frameRate;  // frames per second
  // (floor(t * rate) + step) frames, at den / num seconds each.
  const Wide frames = floorDiv(mul(t.value(), rate.num), mul(t.timescale(), rate.den)) + step;
  return {narrow(mul(frames, rate.den)), rate.num};
}

}  // namespace vantrix
