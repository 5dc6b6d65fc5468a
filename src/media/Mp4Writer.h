#pragma once

#include "media/DisplayTransform.h"
#include "media/FfmpegPtr.h"
#include "media/MediaAsset.h"
#include "media/MediaError.h"

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
}

#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>

namespace vantrix {

// What the video encoder needs to know about the pictures it will be given.
struct VideoEncoding {
  int width = 0;  // stored size of the pictures handed to writeVideo
  int height = 0;
  AVPixelFormat pixelFormat = AV_PIX_FMT_YUV420P;
  AVRational sampleAspectRatio{1, 1};
  AVRational frameRate{30, 1};  // nominal; a hint for rate control only
  AVRational timeBase{1, 90000};  // of the timestamps and durations given to writeVideo
  ColourDescription colour;
  DisplayTransform transform;  // written to the output stream unchanged; pixels are not rotated
};

// Writes an MP4: H.264 High (libx264, CRF 18, preset medium, yuv420p) and, when asked for, AAC at
// 48 kHz and 192 kb/s; the moov atom is moved to the front when the file is finished. Everything
// goes to a temporary file beside the target that is renamed over it only by finish(); a writer
// destroyed before finish() succeeds removes that temporary file, so a cancelled or failed export
// leaves nothing behind.
//
// Every failure carries its FFmpeg or POSIX code, so a full disk (ENOSPC) can be recognised from
// any write, from the trailer and from the final close.
//
// Used by one thread at a time; movable, not copyable.
class Mp4Writer {
 public:
  static constexpr int kAudioSampleRate = 48000;
  static constexpr std::int64_t kAudioBitRate = 192000;

  // Fails with MediaError::Code::exportUnavailable (the FFmpeg error as its cause) when the encoders
  // or the muxer cannot be set up, and with the plain FFmpeg error when the file cannot be created.
  // `audioLayout` absent: no audio track. A layout the AAC encoder cannot take is replaced by the
  // default layout of the same channel count, else by stereo; audioLayout() tells which was used.
  static std::expected<Mp4Writer, MediaError> create(const std::filesystem::path& target, const VideoEncoding& video,
                                                     const AVChannelLayout* audioLayout);

  Mp4Writer(Mp4Writer&&) noexcept;
  Mp4Writer& operator=(Mp4Writer&&) noexcept;
  ~Mp4Writer();

  // The layout audio samples must be given in; null without an audio track.
  const AVChannelLayout* audioLayout() const;
  bool hasAudio() const { return m_audio != nullptr; }
  // Where the file is written until finish() renames it.
  const std::filesystem::path& temporaryPath() const;

  // Encodes one picture shown from `pts` for `duration` ticks of VideoEncoding::timeBase. The frame's
  // format and size must match the VideoEncoding; timestamps must increase.
  std::expected<void, MediaError> writeVideo(const AVFrame& picture, std::int64_t pts, std::int64_t duration);
  // Appends `count` samples per channel (planar float, audioLayout()'s channels, 48 kHz) to the
  // audio track; the track's time is the number of samples written so far.
  std::expected<void, MediaError> writeAudio(const float* const* planes, int count);
  // Appends `count` samples of digital silence.
  std::expected<void, MediaError> writeSilence(int count);
  std::int64_t audioSamplesWritten() const { return m_audioSamplesIn; }

  // Flushes the encoders, writes the trailer (with the front moov), closes the file and renames it
  // to the target. After a failure the temporary file is removed.
  std::expected<void, MediaError> finish();

 private:
  struct AudioState;
  struct TemporaryFile;
  Mp4Writer() = default;

  std::expected<void, MediaError> openVideo(const VideoEncoding& video);
  std::expected<void, MediaError> openAudio(const AVChannelLayout& wanted);
  // Pictures the encoder cannot take as they are (other pixel formats, odd sizes) as yuv420p at
  // the encoder's size.
  std::expected<FramePtr, MediaError> convert(const AVFrame& picture);
  // Writes the packets the encoder has ready; `last` after the encoder was flushed.
  std::expected<void, MediaError> drainVideo(bool last = false);
  std::expected<void, MediaError> encodeAudioFrames(bool flushing);
  std::expected<void, MediaError> drainAudio();
  std::expected<void, MediaError> writePacket(AVPacket& packet, AVStream* stream, AVRational codecTimeBase);
  MediaError failure(int averror, const char* what) const;

  std::filesystem::path m_target;
  // Declared first so that it is released last, after the muxer has closed the file.
  std::unique_ptr<TemporaryFile> m_file;
  OutputFormatPtr m_output;
  CodecContextPtr m_videoCodec;
  AVStream* m_videoStream = nullptr;
  SwsContextPtr m_scaler;
  PacketPtr m_packet;
  PacketPtr m_heldVideo;  // the latest video packet, written when the next comes
  std::int64_t m_videoEnd = 0;  // where the latest-ending picture so far ends, encoder ticks
  std::optional<std::int64_t> m_videoDelay;  // the first packet's presentation minus decoding time
  // Durations of the pictures still inside the encoder, by presentation timestamp: the encoder's
  // packets come out in decoding order, and each gets the duration of its own picture.
  std::map<std::int64_t, std::int64_t> m_pendingDurations;
  std::unique_ptr<AudioState> m_audio;
  std::int64_t m_audioSamplesIn = 0;
};

}  // namespace vantrix
