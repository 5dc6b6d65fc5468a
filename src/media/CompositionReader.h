#pragma once

#include "media/Composition.h"
#include "media/FfmpegPtr.h"
#include "media/MediaError.h"
#include "model/RationalTime.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>

namespace vantrix {

class VideoFrameSource;
class AudioSampleSource;

// The one reader of a composition's pictures and sound, shared by the player and the exporter so
// that preview and export never disagree.
//
// Pictures. In a normal-speed edit every source frame is kept at its mapped time, and the frame
// showing at the edit's start opens it. In an edit at speed k the output has frames on the
// source's nominal frame grid (multiples of 1/frameRate in output time, plus one at the edit's
// start when that is off the grid), each the latest source frame at or before the mapped source
// instant. So the output keeps the source's frame rate and variable-rate sources keep their own
// timing at 1x. A frame is shown from its outputTime until the next frame's outputTime (the last
// one until the composition's end).
//
// Sound, when the composition has an audio track: planar float at kSampleRate in the layout given
// to open(). Normal-speed edits carry the source audio cut to the edit; everything else is exact
// silence. The output sample index of output time t is audioSampleAt(t), the one rounding rule
// used for every edit boundary, so that sound and picture never drift apart.
//
// Work that cannot change the output is skipped: nothing is decoded before the keyframe that
// precedes the first needed frame, and in sped-up edits non-reference pictures that lie wholly
// between two sampled instants are not decoded.
//
// Blocking (file I/O, decoding). The picture half (nextVideoFrame) and the sound half (readAudio)
// share no state, so one thread may read pictures while another reads sound; everything else,
// seek() included, is for one thread at a time. Every call checks the stop token and then fails
// with MediaError::Code::cancelled. Movable.
class CompositionReader {
 public:
  static constexpr int kSampleRate = 48000;

  struct Options {
    // Output channel layout for the sound; null keeps the source's layout (or its default
    // layout for its channel count).
    const AVChannelLayout* audioLayout = nullptr;
    // Decoder threads; 0 lets FFmpeg choose.
    int decoderThreads = 0;
  };

  struct VideoFrame {
    FramePtr picture;             // a reference to the decoded source picture (stored orientation)
    RationalTime outputTime;      // when it starts to show
    RationalTime sourceTime;      // the source frame's own time
  };

  static std::expected<CompositionReader, MediaError> open(std::shared_ptr<const Composition> composition,
                                                           std::stop_token stop, Options options);
  static std::expected<CompositionReader, MediaError> open(std::shared_ptr<const Composition> composition,
                                                           std::stop_token stop = {}) {
    return open(std::move(composition), std::move(stop), Options{});
  }

  CompositionReader(CompositionReader&&) noexcept;
  CompositionReader& operator=(CompositionReader&&) noexcept;
  ~CompositionReader();

  const Composition& composition() const { return *m_composition; }
  // The layout of the samples readAudio delivers; null when the composition has no audio track.
  const AVChannelLayout* audioLayout() const;
  // Replaces the token checked by every call (the player reuses one reader across requests).
  void setStopToken(std::stop_token stop);

  // Reads `composition` from now on, positioned at its start. When it is built on the same asset, the
  // demuxers, decoders and decoded frames are kept, so that a seek to the same source position
  // right after (the preview after an edit) decodes little or nothing.
  std::expected<void, MediaError> replaceComposition(std::shared_ptr<const Composition> composition);

  // Continues both streams from output time t (clamped to [0, duration]): the next video frame
  // is the one showing at t, with outputTime t, and readAudio continues at audioSampleAt(t).
  std::expected<void, MediaError> seek(RationalTime t);
  // The next frame in output order; nullopt after the last one.
  std::expected<std::optional<VideoFrame>, MediaError> nextVideoFrame();
  // Fills up to `count` samples per channel of the next output sound into `planes` (one buffer per
  // channel of audioLayout()); returns how many were written, 0 at the end or without audio.
  std::expected<int, MediaError> readAudio(float* const* planes, int count);

  // The output sample index of output time t at kSampleRate: t x 48000 rounded half away from zero.
  static std::int64_t audioSampleAt(RationalTime t);

  // Frames the video decoder produced since open, for tests and benchmarks.
  std::int64_t framesDecoded() const;

 private:
  CompositionReader() = default;

  Options m_options;
  std::stop_token m_stop;

  std::shared_ptr<const Composition> m_composition;
  std::unique_ptr<VideoFrameSource> m_video;
  std::unique_ptr<AudioSampleSource> m_audio;
  struct LayoutDeleter {
    void operator()(AVChannelLayout* l) const;
  };
  std::unique_ptr<AVChannelLayout, LayoutDeleter> m_layout;  // of the sound; null without audio
  std::int64_t m_audioPosition = 0;  // next output sample readAudio delivers
  std::int64_t m_audioEnd = 0;       // output samples in all: audioSampleAt(duration)
};

}  // namespace vantrix
