#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace vantrix {

// A window of interleaved float sound, every sample frame tagged with its output sample index
// (at CompositionReader::kSampleRate), between the decode thread that writes it and the audio
// thread that plays it. The reader asks for the sample frames due at a position and gets silence
// wherever the window holds nothing: before the sound arrives, after an underrun, in gaps. It
// follows the asked position loosely, so that tiny clock jitter does not cut the sound, and
// jumps when the two drift more than kResyncFrames apart.
//
// Each fill belongs to a session (a seek or an item change); reset() starts a new one and a
// write of an older session is dropped, so no sound of a replaced item or position is ever
// played. One writer thread and one reader thread; reset from any thread.
class AudioRing {
 public:
  // 20 ms at 48 kHz: well inside the 40 ms by which sound may trail or lead the picture.
  static constexpr std::int64_t kResyncFrames = 960;

  AudioRing(int channels, int capacityFrames);

  int channels() const { return m_channels; }

  // Empties the window and starts `session`.
  void reset(std::uint64_t session);

  enum class Write { written, full, stale };
  // Appends `samples` (whole frames, interleaved) starting at output sample `position`. A write
  // that does not continue the window's end starts a new window there, but only once the reader
  // has played everything before it; until then, like a write that does not fit, it returns
  // `full` and changes nothing (try again later).
  Write write(std::uint64_t session, std::int64_t position, std::span<const float> samples);
  // Room for this many more frames, for a writer deciding whether to decode more.
  int freeFrames() const;
  // The output sample index just past the last frame written in this session, if any.
  std::optional<std::int64_t> end() const;

  // Fills `frameCount` frames of `out` with what is due from output sample `due` on, silence
  // where nothing is, and consumes them. With no `due` (playback stopped) it plays silence and
  // consumes nothing.
  void read(float* out, int frameCount, std::optional<std::int64_t> due);

 private:
  void dropBeforeLocked(std::int64_t position);

  const int m_channels;
  const std::int64_t m_capacity;  // frames
  mutable std::mutex m_mutex;
  std::vector<float> m_buffer;
  std::uint64_t m_session = 0;
  std::int64_t m_start = 0;  // output position of the oldest frame held
  std::int64_t m_count = 0;  // frames held
  std::int64_t m_head = 0;   // index in m_buffer (in frames) of the oldest frame
  bool m_hasWindow = false;
  std::optional<std::int64_t> m_played;  // position the reader continues from
};

}  // namespace vantrix
