#include "media/Composition.h"

#include "media/TimeMath.h"

#include <algorithm>

namespace vantrix {
namespace {

// The edit of a sorted, non-overlapping list that covers t, by binary search on outputStart.
const CompositionEdit* editAt(const std::vector<CompositionEdit>& edits, RationalTime t) {
  auto after = std::ranges::upper_bound(edits, t, std::less<>{}, &CompositionEdit::outputStart);
  if (after == edits.begin()) return nullptr;
  const CompositionEdit& edit = *std::prev(after);
  return t < edit.outputEnd() ? &edit : nullptr;
}

}  // namespace

RationalTime CompositionEdit::sourceTimeAt(RationalTime t) const {
  const RationalTime offset = t - outputStart;
  if (!speed) return sourceStart + offset;
  // Exact, as the timeline maps it; the end is a bound because a duration that had to be rounded
  // for a 32-bit timescale may make the stretch a hair longer than its source.
  const RationalTime x = sourceStart + offset.multipliedBy(multiplier(*speed));
  return x > sourceEnd() ? sourceEnd() : x;
}

Composition::Composition(std::shared_ptr<const MediaAsset> asset, DisplayTransform transform,
                         std::vector<CompositionEdit> videoEdits,
                         std::optional<std::vector<CompositionEdit>> audioEdits)
    : m_asset(std::move(asset)),
      m_transform(transform),
      m_videoEdits(std::move(videoEdits)),
      m_audioEdits(std::move(audioEdits)) {}

const std::vector<CompositionEdit>& Composition::audioEdits() const {
  static const std::vector<CompositionEdit> kNone;
  return m_audioEdits ? *m_audioEdits : kNone;
}

RationalTime Composition::duration() const {
  return m_videoEdits.empty() ? RationalTime::zero() : m_videoEdits.back().outputEnd();
}

const CompositionEdit* Composition::videoEditAt(RationalTime t) const { return editAt(m_videoEdits, t); }

const CompositionEdit* Composition::audioEditAt(RationalTime t) const { return editAt(audioEdits(), t); }

std::optional<RationalTime> Composition::sourceTimeForOutput(RationalTime t) const {
  const CompositionEdit* edit = videoEditAt(t);
  if (edit == nullptr) return std::nullopt;
  return edit->sourceTimeAt(t);
}

}  // namespace vantrix
