#pragma once

#include "model/RationalTime.h"

#include <optional>

namespace vantrix {

// The in and out marks of a region being placed, in source time. Either may be set alone, and the
// in mark may lie after the out mark until the region is committed. Equal when both marks are
// (rationally) equal or both absent.
struct PendingRegion {
  std::optional<RationalTime> inPoint;
  std::optional<RationalTime> outPoint;

  friend bool operator==(const PendingRegion&, const PendingRegion&) = default;
};

}  // namespace vantrix
