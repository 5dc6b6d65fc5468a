#include "media/CatchUpSampler.h"

#include <limits>

namespace vantrix {

std::expected<CatchUpSampler, MediaError> CatchUpSampler::open(std::shared_ptr<const MediaAsset> asset,
                                                               std::stop_token stop, int decoderThreads) {
  auto decoder = VideoDecoder::open(std::move(asset), std::move(stop), decoderThreads);
  if (!decoder) return std::unexpected(decoder.error());
  return CatchUpSampler(std::move(*decoder));
}

std::expected<FramePtr, MediaError> CatchUpSampler::decodeNext() {
  const auto next = m_decoder.nextFrame();
  if (!next) return std::unexpected(next.error());
  if (*next == nullptr) return FramePtr{};
  FramePtr copy = makeFrame();
  if (!copy || av_frame_ref(copy.get(), *next) < 0)
    return std::unexpected(MediaError::ffmpeg(AVERROR(ENOMEM), "Keeping a decoded picture"));
  return copy;
}

RationalTime CatchUpSampler::sourceTimeOf(const AVFrame& frame) const {
  return m_decoder.asset().sourceTimeForTimestamp(frame.best_effort_timestamp, m_decoder.track().timeBase);
}

std::expected<CatchUpSampler::Picture, MediaError> CatchUpSampler::sample(RationalTime s,
                                                                          const std::function<bool()>& keepGoing) {
  const std::int64_t target = m_decoder.asset().timestampForSourceTime(s, m_decoder.track().timeBase);
  const std::optional<std::int64_t> group = m_decoder.keyframeAtOrBefore(target);
  const bool behind = m_held && m_held->best_effort_timestamp > target;
  if (!m_held || behind || !group || group != m_group) {
    m_ahead.reset();
    if (auto sought = m_decoder.seek(target); !sought) return std::unexpected(sought.error());
    m_decoder.skipNonReferenceFramesBefore(std::numeric_limits<std::int64_t>::max());
    auto first = decodeNext();
    if (!first) return std::unexpected(first.error());
    m_held = std::move(*first);
    m_group = group;
  }
  while (m_held) {
    if (!m_ahead) {
      if (!keepGoing()) break;
      auto next = decodeNext();
      if (!next) return std::unexpected(next.error());
      if (!*next) break;
      m_ahead = std::move(*next);
    }
    if (m_ahead->best_effort_timestamp > target) break;
    m_held = std::move(m_ahead);
  }
  if (!m_held) return Picture{};
  return Picture{m_held.get(), sourceTimeOf(*m_held)};
}

}  // namespace vantrix
