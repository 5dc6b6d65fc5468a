#pragma once

#include "model/RationalTime.h"
#include "model/Speed.h"
#include "model/Uuid.h"

#include <optional>

namespace vantrix {

// One region of the source that plays faster: [start, end) in source time at `speed`.
// A plain value; a segment is changed by replacing it with a new value that keeps its id.
// Segments made by edits satisfy start < end (see make); decoded ones are checked on restore.
struct SpeedSegment {
  Uuid id;
  RationalTime start;
  RationalTime end;
  Speed speed = Speed::x2;

  // The checked construction: a segment only when start < end (exact comparison).
  static std::optional<SpeedSegment> make(Uuid id, RationalTime start, RationalTime end, Speed speed);
  // As above with a fresh random id.
  static std::optional<SpeedSegment> make(RationalTime start, RationalTime end, Speed speed);

  friend bool operator==(const SpeedSegment&, const SpeedSegment&) = default;
  void hashInto(Hasher& h) const;
};

}  // namespace vantrix

template <>
struct std::hash<vantrix::SpeedSegment> {
  std::size_t operator()(const vantrix::SpeedSegment& s) const { return vantrix::hashOf(s); }
};
