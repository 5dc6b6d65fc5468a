#pragma once

#include "media/DisplayTransform.h"
#include "media/MediaError.h"
#include "model/RationalTime.h"

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
}

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <stop_token>

namespace vantrix {

// How a video's samples are to be read as colours; carried to the exporter and the scaler.
struct ColourDescription {
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
  friend bool operator==(const ColourDescription&, const ColourDescription&) = default;
};

// Which file a path named when it was examined, and its size and modification time then. A file
// replaced under the same name has another inode; one rewritten in place, another size or time.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modifiedSeconds = 0;
  std::int64_t modifiedNanoseconds = 0;

  // The file at `path` now (symbolic links followed); none when it cannot be examined.
  static std::optional<FileIdentity> of(const std::filesystem::path& path);
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

// The video track of an asset: the first decodable video stream that is not an attached picture.
struct VideoTrack {
  int streamIndex = -1;
  AVCodecID codec = AV_CODEC_ID_NONE;
  AVRational timeBase{1, 1};
  // Presentation timestamp of the first shown frame, in timeBase ticks: source time zero.
  std::int64_t firstTimestamp = 0;
  // Exact length: where the last frame stops being shown minus firstTimestamp. That end is the
  // track's declared end when the packets confirm it, else the last packet's end (timestamp
  // plus duration). Value ticks * timeBase.num over timescale timeBase.den.
  RationalTime duration;
  // The nominal frame rate (frames per second), the grid on which sped-up output is sampled.
  AVRational frameRate{30, 1};
  int width = 0;  // coded size, before the display transform
  int height = 0;
  AVRational sampleAspectRatio{1, 1};  // shown width of one stored pixel over its height
  AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
  DisplayTransform transform;
  ColourDescription colour;
};

// The audio track of an asset: the first audio stream that has a decoder.
struct AudioTrack {
  int streamIndex = -1;
  AVCodecID codec = AV_CODEC_ID_NONE;
  AVRational timeBase{1, 1};
  int sampleRate = 0;
  int channelCount = 0;
  // Native channel mask (AV_CH_*), or 0 when the file gives only a channel count.
  std::uint64_t channelMask = 0;
};

// A source file opened and probed once: which streams to use and their exact timing. Immutable
// and shared as std::shared_ptr<const MediaAsset> between the loader, the composition and every
// reader. It holds no FFmpeg context: each reader opens its own demuxer on path().
//
// Source time, the time of the editing model, starts at zero at the first shown video frame. Every
// stream's timestamps map to source time through the video track's firstTimestamp, so audio and
// video keep their relative offset.
//
// open() blocks on file I/O and runs off the GUI thread; the value is thread-safe to read.
class MediaAsset {
 public:
  // Opens, probes and closes the file. An asset without usable video still opens (video() is
  // empty); the loader decides what that means. Fails with an FFmpeg error when the container
  // cannot be read, `damagedMedia` when it promises packets that are not there or its video's
  // timestamps lie beyond what exact time arithmetic can take (see timingFits in
  // MediaAssetProbe.cpp), `cancelled` when `stop` was triggered.
  static std::expected<std::shared_ptr<const MediaAsset>, MediaError> open(const std::filesystem::path& path,
                                                                           std::stop_token stop = {});

  // `identity` is the probed file's; an asset without one trusts whatever is at the path.
  MediaAsset(std::filesystem::path path, std::optional<VideoTrack> video, std::optional<AudioTrack> audio,
             std::optional<FileIdentity> identity = std::nullopt);

  const std::filesystem::path& path() const { return m_path; }
  const std::optional<VideoTrack>& video() const { return m_video; }
  const std::optional<AudioTrack>& audio() const { return m_audio; }
  const std::optional<FileIdentity>& identity() const { return m_identity; }

  // Whether path() still names the file that was probed, unchanged. Every reader that opens the
  // path again checks this, so that the stream layout and timing probed here are never applied
  // to another file. Fails with sourceMissing when nothing is there any more, sourceChanged when
  // another file or other content is.
  std::expected<void, MediaError> checkUnchanged() const;

  // The video track's exact duration; zero without video.
  RationalTime duration() const;

  // The timestamp, in ticks of `timeBase`, of source time t; rounded to the nearest tick, ties
  // away from zero.
  std::int64_t timestampForSourceTime(RationalTime t, AVRational timeBase) const;
  // The source time of a timestamp in ticks of `timeBase`; exact.
  RationalTime sourceTimeForTimestamp(std::int64_t timestamp, AVRational timeBase) const;
  // The index of the sample at `rate` per second where a timestamp in ticks of `timeBase` falls in
  // source time, rounded to the nearest; nullopt when it lies more than an hour outside the
  // video's span. Sound that far out is never played, and a damaged file's timestamps may lie
  // anywhere, even where exact conversion would overflow.
  std::optional<std::int64_t> sampleIndexForTimestamp(std::int64_t timestamp, AVRational timeBase, int rate) const;

 private:
  RationalTime origin() const;

  std::filesystem::path m_path;
  std::optional<VideoTrack> m_video;
  std::optional<AudioTrack> m_audio;
  std::optional<FileIdentity> m_identity;
};

}  // namespace vantrix
