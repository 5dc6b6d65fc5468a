#pragma once

// Test media that knows its own content: each video frame shows its number as a barcode that survives lossy coding and
// downscaling, the audio is a tone whose pitch changes every second. Cached per test process; use from the test thread.

#include "model/RationalTime.h"

#include <QImage>

#include <cstdint>
#include <filesystem>
#include <optional>
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
  bool variableFrameRate = false;  // frame durations vary irregularly around the nominal rate
  double seconds = 3;
  int rotation = 0;  // display matrix turn, clockwise (ffprobe says -90 for 90); upright as displayed
  AudioLayout audio = AudioLayout::stereo;
  AudioCodec audioCodec = AudioCodec::aac;
  bool audioOnly = false;     // no video stream at all
  bool coverArtOnly = false;  // audio plus an attached picture as the only "video" stream
  Damage damage = Damage::none;
  int gopFrames = 30;      // keyframe interval in frames
  int sampleRate = 48000;  // audio samples per second

  friend bool operator==(const FixtureSpec&, const FixtureSpec&) = default;
};

// The recipe's file, written on first use into a folder removed at exit unless VANTRIX_KEEP_FIXTURES is set. Muxers:
// mov for .mov and for PCM audio, mp4 for .mp4, ipod for .m4v. A recipe that cannot be written throws
// std::runtime_error.
std::filesystem::path fixture(const FixtureSpec& recipe);

// When the recipe's source frame i is shown (exact, in the stream's time base), and how many video frames it has.
RationalTime frameTime(const FixtureSpec& recipe, std::int64_t frameIndex);
std::int64_t frameCount(const FixtureSpec& recipe);

// The tone of source second s (Hz), distinct for every second modulo kDistinctToneSeconds.
double toneForSecond(int second);
inline constexpr int kDistinctToneSeconds = 60;

// The barcode of an upright picture (as displayed); nullopt when none is visible, e.g. in a picture shown sideways or
// upside down. Dark bars along the edges are ignored.
std::optional<std::int64_t> readBarcode(const QImage& image);

struct DecodedFrame {
  RationalTime time;      // presentation time in the stream's time base
  RationalTime duration;  // to the next frame; for the last, to the stream's declared end if later, else its packet's
  std::optional<std::int64_t> barcode;
};

// Every frame of the first video stream (cover art is not video) in presentation order, its barcode read upright
// (display matrix applied). Empty when the file cannot be opened or has no video; decoding stops at the first error.
std::vector<DecodedFrame> readFrames(const std::filesystem::path& file);

// The source second (modulo kDistinctToneSeconds) whose tone dominates each `window` seconds (0.05 s or more) of the
// first audio stream from time 0, channels mixed; -1 for digital silence, -2 for anything else, as for a window across
// a change of tone. A last window less than half covered is left out. Empty without audio.
std::vector<int> dominantSeconds(const std::filesystem::path& file, double window);

}  // namespace vantrix::testing
