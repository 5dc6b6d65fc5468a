#pragma once

#include <QObject>

#include <atomic>
#include <chrono>

namespace vantrix {

// The time base of a Player: a monotonic count of nanoseconds from an arbitrary origin. Playback
// positions are derived from it (see Playhead), so replacing it lets tests and benchmarks decide
// when time passes.
//
// now() may be called from any thread. Signals are emitted on the thread that changed the clock.
class PlayerClock : public QObject {
  Q_OBJECT

 public:
  using QObject::QObject;

  virtual std::chrono::nanoseconds now() const = 0;
  // Whether time passes by itself. The player schedules its presentation timer only for a clock
  // that runs; for one that does not it waits for `changed`.
  virtual bool runs() const = 0;

 signals:
  // The time was set by hand.
  void changed();
};

// The steady system clock: the default master clock of playback.
class WallClock final : public PlayerClock {
 public:
  using PlayerClock::PlayerClock;
  std::chrono::nanoseconds now() const override;
  bool runs() const override { return true; }
};

// A clock that stands still until it is moved by hand, for tests that need to know exactly what
// the player shows at a given time. Move it from the player's (GUI) thread.
class ManualClock final : public PlayerClock {
 public:
  using PlayerClock::PlayerClock;
  std::chrono::nanoseconds now() const override { return std::chrono::nanoseconds(m_now.load()); }
  bool runs() const override { return false; }

  // Moves the clock forward by `step` (not backwards: a negative step is ignored) and emits changed.
  void advance(std::chrono::nanoseconds step);

 private:
  std::atomic<std::int64_t> m_now{0};
};

}  // namespace vantrix
