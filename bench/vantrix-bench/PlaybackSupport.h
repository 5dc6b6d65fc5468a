#pragma once

// What the playback subcommands share: an event loop for the player, a picture sink that times
// what it is given, and the process's peak memory.

#include "media/VideoOutput.h"

#include <QCoreApplication>
#include <QSize>

#include <chrono>
#include <functional>
#include <optional>

namespace vantrix::bench {

// The view size the benchmarks scale pictures to: a typical editor window's player.
inline constexpr QSize kViewSize{960, 540};

// The application object the player's reports need; made on first use.
QCoreApplication& application();

// Runs the event loop until `done` holds or `limit` passes; whether `done` held.
bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);

// Counts the pictures presented and notes when the last one came.
class TimingOutput final : public VideoOutput {
 public:
  void present(const PlayerFrame& frame) override;
  void clear() override { ++clears; }

  int presented = 0;
  int clears = 0;
  std::optional<PlayerFrame> last;
  std::chrono::steady_clock::time_point lastAt;
};

// Peak resident memory of this process so far, in megabytes.
double peakMemoryMegabytes();

}  // namespace vantrix::bench
