#include "media/AudioOutput.h"

#include "media/CompositionReader.h"

namespace vantrix {

void AudioFeed::pull(float* out, int frameCount, std::chrono::nanoseconds latency) {
  std::optional<std::int64_t> due;
  if (m_playhead->running()) due = CompositionReader::audioSampleAt(m_playhead->at(latency));
  m_ring->read(out, frameCount, due);
}

}  // namespace vantrix
