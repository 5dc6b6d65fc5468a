#include "model/SpeedSegment.h"

namespace vantrix {

std::optional<SpeedSegment> SpeedSegment::make(Uuid id, RationalTime start, RationalTime end, Speed speed) {
  if (!(start < end)) return std::nullopt;
  return SpeedSegment{id, start, end, speed};
}

std::optional<SpeedSegment> SpeedSegment::make(RationalTime start, RationalTime end, Speed speed) {
  return make(Uuid::random(), start, end, speed);
}

void SpeedSegment::hashInto(Hasher& h) const {
  id.hashInto(h);
  start.hashInto(h);
  end.hashInto(h);
  h.combine(rawValue(speed));
}

}  // namespace vantrix
