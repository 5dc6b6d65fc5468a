#pragma once

#include "media/DisplayTransform.h"
#include "media/MediaAsset.h"
#include "model/RationalTime.h"
#include "model/Speed.h"

#include <memory>
#include <optional>
#include <vector>

namespace vantrix {

// One stretch of source media placed on the output timeline. Source times are the asset's source
// time (zero at the first shown video frame); output times start at zero at the composition's
// first frame. Without a speed the two durations are equal; with one, outputDuration is
// sourceDuration divided by the factor on sourceDuration's timescale (see CompositionBuilder).
struct CompositionEdit {
  RationalTime sourceStart;
  RationalTime sourceDuration;
  RationalTime outputStart;
  RationalTime outputDuration;
  std::optional<Speed> speed;

  RationalTime sourceEnd() const { return sourceStart + sourceDuration; }
  RationalTime outputEnd() const { return outputStart + outputDuration; }

  // The source instant that plays at output time t (t inside the edit), exactly as the timeline
  // maps it: sourceStart + (t - outputStart) x the speed's factor, at most sourceEnd.
  RationalTime sourceTimeAt(RationalTime t) const;

  friend bool operator==(const CompositionEdit&, const CompositionEdit&) = default;
};

// The edited video as the player and the exporter read it: the source asset, the display
// transform for its picture, one video edit list and, only when the source has audio, one audio
// edit list. Video edits follow each other from output zero without gaps. Audio edits exist only
// for normal-speed stretches; where no audio edit covers an output time, the output is silent.
//
// Immutable once built; shared as std::shared_ptr<const Composition>, thread-safe to read.
class Composition {
 public:
  Composition(std::shared_ptr<const MediaAsset> asset, DisplayTransform transform,
              std::vector<CompositionEdit> videoEdits, std::optional<std::vector<CompositionEdit>> audioEdits);

  const std::shared_ptr<const MediaAsset>& asset() const { return m_asset; }
  const DisplayTransform& transform() const { return m_transform; }
  const std::vector<CompositionEdit>& videoEdits() const { return m_videoEdits; }
  bool hasAudioTrack() const { return m_audioEdits.has_value(); }
  // Empty when there is no audio track, or when every stretch is sped up.
  const std::vector<CompositionEdit>& audioEdits() const;

  // End of the last video edit; zero for an empty composition.
  RationalTime duration() const;

  // The video edit playing at output time t (outputStart <= t < outputEnd); null outside
  // [0, duration).
  const CompositionEdit* videoEditAt(RationalTime t) const;
  // The audio edit covering t, or null where the output is silent.
  const CompositionEdit* audioEditAt(RationalTime t) const;
  // The source instant shown at output time t; nullopt outside [0, duration).
  std::optional<RationalTime> sourceTimeForOutput(RationalTime t) const;

 private:
  std::shared_ptr<const MediaAsset> m_asset;
  DisplayTransform m_transform;
  std::vector<CompositionEdit> m_videoEdits;
  std::optional<std::vector<CompositionEdit>> m_audioEdits;
};

}  // namespace vantrix
