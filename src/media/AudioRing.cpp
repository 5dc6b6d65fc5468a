#include "media/AudioRing.h"

#include <algorithm>
#include <cstdlib>

namespace vantrix {

AudioRing::AudioRing(int channels, int capacityFrames)
    : m_channels(std::max(1, channels)),
      m_capacity(std::max(1, capacityFrames)),
      m_buffer(static_cast<std::size_t>(m_capacity * m_channels), 0.0f) {}

void AudioRing::reset(std::uint64_t session) {
  std::lock_guard lock(m_mutex);
  m_session = session;
  m_count = 0;
  m_head = 0;
  m_hasWindow = false;
  m_played.reset();
}

AudioRing::Write AudioRing::write(std::uint64_t session, std::int64_t position, std::span<const float> samples) {
  const std::int64_t frames = static_cast<std::int64_t>(samples.size()) / m_channels;
  std::lock_guard lock(m_mutex);
  if (session != m_session) return Write::stale;
  if (m_hasWindow && position != m_start + m_count) {
    // A jump: only once everything before it has been played (or skipped).
    if (m_count > 0 && !(m_played && *m_played >= m_start + m_count)) return Write::full;
    m_count = 0;
    m_head = 0;
    m_hasWindow = false;
  }
  if (!m_hasWindow) {
    m_start = position;
    m_hasWindow = true;
  }
  if (m_played && *m_played > m_start) dropBeforeLocked(*m_played);
  if (frames > m_capacity - m_count) return Write::full;
  for (std::int64_t i = 0; i < frames; ++i) {
    const std::int64_t slot = (m_head + m_count + i) % m_capacity;
    std::copy_n(samples.data() + i * m_channels, m_channels, m_buffer.data() + slot * m_channels);
  }
  m_count += frames;
  return Write::written;
}

int AudioRing::freeFrames() const {
  std::lock_guard lock(m_mutex);
  return static_cast<int>(m_capacity - m_count);
}

std::optional<std::int64_t> AudioRing::end() const {
  std::lock_guard lock(m_mutex);
  if (!m_hasWindow) return std::nullopt;
  return m_start + m_count;
}

void AudioRing::dropBeforeLocked(std::int64_t position) {
  const std::int64_t drop = std::clamp<std::int64_t>(position - m_start, 0, m_count);
  m_head = (m_head + drop) % m_capacity;
  m_count -= drop;
  m_start += drop;
}

void AudioRing::read(float* out, int frameCount, std::optional<std::int64_t> due) {
  std::fill_n(out, static_cast<std::size_t>(frameCount) * m_channels, 0.0f);
  if (!due) return;
  std::lock_guard lock(m_mutex);
  if (!m_played || std::llabs(*m_played - *due) > kResyncFrames) m_played = *due;
  const std::int64_t from = *m_played;
  if (m_hasWindow) {
    dropBeforeLocked(from);
    // Frames [from, from + frameCount) that the window holds: [m_start, m_start + m_count).
    const std::int64_t first = std::max(from, m_start);
    const std::int64_t last = std::min(from + frameCount, m_start + m_count);
    for (std::int64_t p = first; p < last; ++p) {
      const std::int64_t slot = (m_head + (p - m_start)) % m_capacity;
      std::copy_n(m_buffer.data() + slot * m_channels, m_channels, out + (p - from) * m_channels);
    }
  }
  m_played = from + frameCount;
  if (m_hasWindow) dropBeforeLocked(*m_played);
}

}  // namespace vantrix
