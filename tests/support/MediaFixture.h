#pragma once

// Test media that knows its own content. Every video frame shows its own frame number as a
// barcode that survives lossy compression and downscaling; the audio is a sine tone whose pitch
// changes every second, so a test can tell which source frame it sees and which source second it
// hears. Files are written with libavformat/libavcodec into one temporary folder per test process
// and cached: asking twice for the same recipe returns the same path without re-encoding.
//
// Thread-compatible: call from the test thread.

#include "model/RationalTime.h"

#include <QImage>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vantrix::testing {

enum class Container { mp4, mov, m4v };
enum class VideoCodec { h264, mpeg4, mjpeg };  // h264 is encoded with B-frames
enum class AudioLayout { none, mono, stereo, surround51 };
enum class AudioCodec { aac, pcm };
enum class Damage { none, truncated, zeroedHeader };

// The recipe of one fixture file. Two equal recipes give the same cached file.
struct FixtureSpec {
  Container container = Container::mp4;
  bool upperCaseExtension = false;  // "clip.MP4"
  VideoCodec codec = VideoCodec::h264;
  int width = 320;  // stored (coded) size, before the display rotation
  int height = 240;
  int frameRateNum = 30;  // nominal rate; 30000/1001 is {30000, 1001}
  int frameRateDen = 1;
  bool variableFrameRate = false;  // frame durations alternate irregularly around the nominal rate
  double seconds = 3;
  int rotation = 0;  // 0, 90, 180 or 270 degrees in the display matrix; content is upright when displayed
                    // (clockwise turn from stored to displayed, which ffprobe reports as -90 for 90)
  AudioLayout audio = AudioLayout::stereo;
  AudioCodec audioCodec = AudioCodec::aac;
  bool audioOnly = false;     // no video stream at all
  bool coverArtOnly = false;  // audio plus an attached picture as the only "video" stream
  Damage damage = Damage::none;
  int gopFrames = 30;  // keyframe interval in frames
  int sampleRate = 48000;  // audio samples per second

  friend bool operator==(const FixtureSpec&, const FixtureSpec&) = default;
};

// The generated file's path (generated on first use, then cached for the process). The folder is
// removed when the process exits, unless VANTRIX_KEEP_FIXTURES is set in the environment.
// Muxers: mov for .mov, mp4 for .mp4, ipod for .m4v, and mov whatever the extension for PCM
// audio (the MPEG-4 muxers here refuse it). A recipe that cannot be written (a bad rotation,
// Motion JPEG in .m4v, ...) throws std::runtime_error naming the cause, which GoogleTest reports
// as the calling test's failure.
std::filesystem::path fixture(const FixtureSpec& recipe);

// The recipe's source frame i is shown at this time (exact, in the stream's time base).
RationalTime frameTime(const FixtureSpec& recipe, std::int64_t frameIndex);
// Number of video frames the recipe produces.
std::int64_t frameCount(const FixtureSpec& recipe);

// Tone of source second s (Hz); distinct for every second and far enough apart to separate
// after AAC coding. The tones repeat every kDistinctToneSeconds seconds.
double toneForSecond(int second);
inline constexpr int kDistinctToneSeconds = 60;

// Reads the barcode of an upright picture (as displayed). nullopt when no valid code is visible,
// e.g. for a picture shown sideways or upside down.
std::optional<std::int64_t> readBarcode(const QImage& image);

// One decoded video frame of a file.
struct DecodedFrame {
  RationalTime time;      // presentation time in the stream's time base
  RationalTime duration;  // the gap to the next frame's time; for the last frame, up to the stream's
                          // end (start time + duration) when that is later, else its packet duration
  std::optional<std::int64_t> barcode;
};

// Every frame of the first video stream in presentation order, read upright (the display
// matrix is applied before reading the barcode). Attached pictures (cover art) are not video.
// Empty when the file cannot be opened or has no video; decoding stops at the first error.
std::vector<DecodedFrame> readFrames(const std::filesystem::path& file);

// The same frames as pictures as displayed (display matrix applied), Format_RGB32.
std::vector<QImage> readPictures(const std::filesystem::path& file);

// The source second whose tone dominates each window of the first audio stream, from time 0 in
// steps of `window` seconds (channels mixed down); -1 for digital silence, -2 for anything else.
// Seconds are reported modulo kDistinctToneSeconds. Windows of 0.05 s and longer separate the
// tones; a window straddling a change of tone is -2 unless one tone fills most of it. A last
// window less than half covered by audio is left out. Empty when there is no audio to decode.
std::vector<int> dominantSeconds(const std::filesystem::path& file, double window);

}  // namespace vantrix::testing
