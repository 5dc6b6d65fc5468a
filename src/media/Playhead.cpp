#include "media/Playhead.h"

#include "media/TimeMath.h"

#include <numeric>

namespace vantrix {
namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
// Running times are kept on lcm(start timescale, 1e9); above this a day of playback would come
// close to 64-bit values.
constexpr std::int64_t kMaxRunningTimescale = 100'000'000'000'000;

RationalTime nanoseconds(std::int64_t ns) { return {ns, kNanosPerSecond}; }

RationalTime runnable(RationalTime t) {
  const std::int64_t ts = t.timescale();
  if (ts > 0 && ts <= kMaxRunningTimescale / kNanosPerSecond * std::gcd(ts, kNanosPerSecond)) return t;
  using namespace timemath;
  return {narrow(floorDiv(mul(t.value(), kNanosPerSecond), ts)), kNanosPerSecond};
}

}  // namespace

void Playhead::park(RationalTime t) {
  std::lock_guard lock(m_mutex);
  m_running = false;
  m_from = t;
}

void Playhead::run(RationalTime t) {
  const auto since = m_clock->now();
  std::lock_guard lock(m_mutex);
  m_running = true;
  m_from = runnable(t);
  m_since = since;
}

bool Playhead::running() const {
  std::lock_guard lock(m_mutex);
  return m_running;
}

RationalTime Playhead::now() const { return at(std::chrono::nanoseconds{0}); }

RationalTime Playhead::at(std::chrono::nanoseconds ahead) const {
  const auto clockNow = m_clock->now();
  std::lock_guard lock(m_mutex);
  if (!m_running) return m_from;
  return m_from + nanoseconds((clockNow - m_since + ahead).count());
}

std::chrono::nanoseconds Playhead::clockTimeOf(RationalTime t) const {
  std::lock_guard lock(m_mutex);
  const RationalTime delta = t - m_from;
  using namespace timemath;
  const auto ns = narrow(floorDiv(mul(delta.value(), kNanosPerSecond), delta.timescale()));
  return m_since + std::chrono::nanoseconds(ns);
}

}  // namespace vantrix
