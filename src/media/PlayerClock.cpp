#include "media/PlayerClock.h"

namespace vantrix {

std::chrono::nanoseconds WallClock::now() const {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

void ManualClock::advance(std::chrono::nanoseconds step) {
  if (step.count() <= 0) return;
  m_now.fetch_add(step.count());
  emit changed();
}

}  // namespace vantrix
