#pragma once

#include "media/DisplayTransform.h"
#include "model/RationalTime.h"

#include <QImage>

namespace vantrix {

// One picture as the player shows it.
struct PlayerFrame {
  QImage image;                // Format_RGB32 at the size the view asked for, stored orientation
  DisplayTransform transform;  // to apply when painting (from the composition)
  RationalTime outputTime;     // when it started to show, in the item's output time
  RationalTime sourceTime;     // the source frame's own time
};

// Where a player's pictures go (the player view, or a recorder in tests and benchmarks). Called
// only on the player's (GUI) thread; the player does not own it.
class VideoOutput {
 public:
  virtual ~VideoOutput() = default;
  // Show `frame` from now on.
  virtual void present(const PlayerFrame& frame) = 0;
  // Show nothing: the player has no item any more.
  virtual void clear() = 0;
};

}  // namespace vantrix
