#pragma once

#include "media/PlayerClock.h"
#include "model/RationalTime.h"

#include <chrono>
#include <memory>
#include <mutex>

namespace vantrix {

// Where playback is in output time, derived from a PlayerClock: either parked at a time, or
// running at normal rate from a time taken at a clock reading. The decode thread reads it to know
// how far ahead of the screen it is, the audio thread to know which sample is due.
//
// park and run are called on the player's (GUI) thread; everything else from any thread.
class Playhead {
 public:
  explicit Playhead(std::shared_ptr<const PlayerClock> clock) : m_clock(std::move(clock)) {}

  void park(RationalTime t);
  // Runs from `t` now. A start time whose timescale would make running times unwieldy is taken
  // at nanosecond precision, rounded down (the frame at t is then due one nanosecond later).
  void run(RationalTime t);

  bool running() const;
  // The output time now: exact, on a timescale that nanoseconds divide while running.
  RationalTime now() const;
  // The output time `ahead` from now (the same as now() while parked).
  RationalTime at(std::chrono::nanoseconds ahead) const;
  // The clock reading at which output time t is reached while running (t may be past).
  std::chrono::nanoseconds clockTimeOf(RationalTime t) const;

  const PlayerClock& clock() const { return *m_clock; }

 private:
  std::shared_ptr<const PlayerClock> m_clock;
  mutable std::mutex m_mutex;
  bool m_running = false;
  RationalTime m_from;
  std::chrono::nanoseconds m_since{0};
};

}  // namespace vantrix
