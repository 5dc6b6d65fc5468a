#pragma once

#include "media/AudioRing.h"
#include "media/Playhead.h"

#include <chrono>
#include <memory>

namespace vantrix {

// What an audio output pulls from: the player's sound window and its playhead. pull() hands out
// the sound due `latency` from now, that is the sound to be heard when the samples leave the
// device, and silence while playback is stopped.
//
// pull() runs on the output's thread; the feed is shared with the player, which outlives neither.
class AudioFeed {
 public:
  AudioFeed(std::shared_ptr<AudioRing> ring, std::shared_ptr<const Playhead> playhead)
      : m_ring(std::move(ring)), m_playhead(std::move(playhead)) {}

  int channels() const { return m_ring->channels(); }
  // Fills `frameCount` interleaved frames of 32-bit float at CompositionReader::kSampleRate.
  void pull(float* out, int frameCount, std::chrono::nanoseconds latency);
  // The output sample index up to which sound has been decoded, if any.
  std::optional<std::int64_t> bufferedEnd() const { return m_ring->end(); }

 private:
  std::shared_ptr<AudioRing> m_ring;
  std::shared_ptr<const Playhead> m_playhead;
};

// Where a player's sound goes. The player calls every function on its own (GUI) thread; the
// output pulls from the feed on whatever thread it likes, from start() until stop() returns.
class AudioOutput {
 public:
  virtual ~AudioOutput() = default;

  // False for an output that plays nothing: the player then decodes no sound at all.
  virtual bool playsSound() const = 0;
  virtual void start(std::shared_ptr<AudioFeed> feed) = 0;
  virtual void stop() = 0;
};

// No sound device (or sound not wanted): playback runs on its clock alone.
class NullAudioOutput final : public AudioOutput {
 public:
  bool playsSound() const override { return false; }
  void start(std::shared_ptr<AudioFeed>) override {}
  void stop() override {}
};

// The system's default sound device through QAudioSink, or a NullAudioOutput when there is none
// or it cannot play stereo float at 48 kHz (logged at info level; not an error). Needs a
// QCoreApplication; call on the GUI thread.
std::unique_ptr<AudioOutput> makeDefaultAudioOutput();

}  // namespace vantrix
