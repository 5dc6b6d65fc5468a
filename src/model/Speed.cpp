#include "model/Speed.h"

namespace vantrix {

std::optional<Speed> speedFromRawValue(std::int64_t raw) {
  for (Speed s : kAllSpeeds)
    if (rawValue(s) == raw) return s;
  return std::nullopt;
}

std::string_view speedName(Speed s) {
  switch (s) {
    case Speed::x2: return "x2";
    case Speed::x4: return "x4";
    case Speed::x8: return "x8";
    case Speed::x16: return "x16";
  }
  return "x?";
}

}  // namespace vantrix
