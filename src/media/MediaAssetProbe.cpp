// MediaAsset::open: choosing the streams and measuring the video's exact span from its packets.

#include "media/FfmpegPtr.h"
#include "media/MediaAsset.h"
#include "media/MediaInput.h"
#include "media/TimeMath.h"
#include "model/Speed.h"

extern "C" {
#include <libavutil/display.h>
}

#include <algorithm>
#include <cstring>
#include <limits>
#include <numeric>

namespace vantrix {
namespace {

// Packets read from the start before the first shown frame is taken as known. The first shown
// frame is decoded within the codec's reordering window (at most 16 frames for H.264 and HEVC).
constexpr int kHeadPackets = 32;

bool isRealVideo(const AVStream* st) {
  return st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC) &&
         avcodec_find_decoder(st->codecpar->codec_id) != nullptr;
}

bool isUsableAudio(const AVStream* st) {
  return st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && st->codecpar->sample_rate > 0 &&
         st->codecpar->ch_layout.nb_channels > 0 && avcodec_find_decoder(st->codecpar->codec_id) != nullptr;
}

int firstStream(const AVFormatContext* ctx, bool (*accept)(const AVStream*)) {
  for (unsigned i = 0; i < ctx->nb_streams; ++i)
    if (accept(ctx->streams[i])) return static_cast<int>(i);
  return -1;
}

bool valid(AVRational r) { return r.num > 0 && r.den > 0; }

// The container's r_frame_rate is the true nominal rate for constant-rate files but becomes the
// time base (57600 fps, say) for irregular ones; the average rate is then the better grid.
AVRational nominalFrameRate(const AVStream* st) {
  const AVRational r = st->r_frame_rate;
  const AVRational avg = st->avg_frame_rate;
  if (valid(r) && valid(avg) && av_cmp_q(r, av_mul_q(avg, AVRational{3, 2})) <= 0) return r;
  if (valid(r) && !valid(avg) && av_cmp_q(r, AVRational{240, 1}) <= 0) return r;
  if (valid(avg)) return avg;
  return {30, 1};  // nothing usable in the file: the most common rate
}

DisplayTransform displayTransformOf(const AVStream* st) {
  std::size_t size = 0;
  const std::uint8_t* data = av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (data == nullptr || size < sizeof(DisplayTransform::Matrix)) return {};
  DisplayTransform::Matrix m{};
  std::memcpy(m.data(), data, sizeof m);
  return DisplayTransform(m);
}

// Presentation span of the non-discarded packets seen so far, in stream ticks.
struct Span {
  std::int64_t first = std::numeric_limits<std::int64_t>::max();
  std::int64_t last = std::numeric_limits<std::int64_t>::min();  // latest frame start
  std::int64_t end = std::numeric_limits<std::int64_t>::min();   // latest start + packet duration
  std::int64_t longest = 1;  // longest frame: packet duration, or decode-time step where none is stored
  std::int64_t lastDts = std::numeric_limits<std::int64_t>::min();  // includes discarded packets
  int counted = 0;
};

MediaError unreadableTiming(const std::string& name) {
  return MediaError::own(MediaError::Code::damagedMedia, "The timestamps of " + name + " overflow");
}

// Reads packets until end of file (returns true) or until `limit` more packets were counted
// (returns false). Packets of other streams are skipped by the demuxer (discard set). Timestamps
// whose sums or differences leave 64 bits make the file damaged.
std::expected<bool, MediaError> readPackets(MediaInput& input, int streamIndex, int limit, Span& span,
                                            const std::string& name) {
  PacketPtr packet = makePacket();
  if (!packet) return std::unexpected(MediaError::ffmpeg(AVERROR(ENOMEM), "Reading packets of " + name));
  std::int64_t previousDts = AV_NOPTS_VALUE;
  for (int counted = 0; limit <= 0 || counted < limit;) {
    const int r = input.read(packet.get());
    if (r == AVERROR_EOF) return true;
    if (r < 0) return std::unexpected(mediaCallFailed(r, input.stopRequested(), "Reading packets of " + name));
    PacketUnref unref(packet.get());
    if (packet->stream_index != streamIndex) continue;
    if (packet->dts != AV_NOPTS_VALUE) {
      span.lastDts = std::max(span.lastDts, packet->dts);
      std::int64_t step = 0;
      if (previousDts != AV_NOPTS_VALUE && __builtin_sub_overflow(packet->dts, previousDts, &step))
        return std::unexpected(unreadableTiming(name));
      span.longest = std::max(span.longest, step);
      previousDts = packet->dts;
    }
    if (packet->flags & AV_PKT_FLAG_DISCARD) continue;  // hidden by an edit list; never shown
    const std::int64_t ts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (ts == AV_NOPTS_VALUE) continue;
    span.first = std::min(span.first, ts);
    span.last = std::max(span.last, ts);
    std::int64_t end = 0;
    if (__builtin_add_overflow(ts, std::max<std::int64_t>(packet->duration, 0), &end))
      return std::unexpected(unreadableTiming(name));
    span.end = std::max(span.end, end);
    span.longest = std::max(span.longest, packet->duration);
    ++span.counted;
    ++counted;
  }
  return false;
}

// Timestamp of the keyframe before the last one in the demuxer's index: every frame shown after
// it is decoded from packets at or after it, reordering included. Nullopt without an index.
std::optional<std::int64_t> tailStart(AVStream* st) {
  const int count = avformat_index_get_entries_count(st);
  int keyframes = 0;
  for (int i = count - 1; i >= 0; --i) {
    const AVIndexEntry* e = avformat_index_get_entry(st, i);
    if (e != nullptr && (e->flags & AVINDEX_KEYFRAME) && ++keyframes == 2) return e->timestamp;
  }
  if (count > 0) return avformat_index_get_entry(st, 0)->timestamp;
  return std::nullopt;
}

std::optional<std::int64_t> lastIndexedTimestamp(AVStream* st) {
  const int count = avformat_index_get_entries_count(st);
  std::optional<std::int64_t> last;
  for (int i = 0; i < count; ++i) {
    const AVIndexEntry* e = avformat_index_get_entry(st, i);
    if (e != nullptr && (!last || e->timestamp > *last)) last = e->timestamp;
  }
  return last;
}

// The exact presentation span of the video stream. Reads the first packets, then the last two
// keyframe intervals found through the index, so that opening costs the same for a long file as
// for a short one; without an index, or when the seek fails, it reads on to the end instead.
std::expected<Span, MediaError> measureSpan(MediaInput& input, int streamIndex, const std::string& name) {
  AVFormatContext* ctx = input.context();
  for (unsigned i = 0; i < ctx->nb_streams; ++i)
    ctx->streams[i]->discard = static_cast<int>(i) == streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  AVStream* st = input.stream(streamIndex);

  Span span;
  auto atEnd = readPackets(input, streamIndex, kHeadPackets, span, name);
  if (!atEnd) return std::unexpected(atEnd.error());
  if (!*atEnd) {
    const std::optional<std::int64_t> from = tailStart(st);
    bool seeked = false;
    if (from && *from > span.lastDts) {
      const std::int64_t lo = std::numeric_limits<std::int64_t>::min();
      seeked = avformat_seek_file(ctx, streamIndex, lo, *from, *from, 0) >= 0;
      if (!seeked && input.stopRequested())
        return std::unexpected(MediaError::own(MediaError::Code::cancelled, "Seeking in " + name));
    }
    // After a failed seek the demuxer is still where the head read stopped: read on to the end.
    atEnd = readPackets(input, streamIndex, 0, span, name);
    if (!atEnd) return std::unexpected(atEnd.error());
  }
  // A truncated file keeps an index that promises packets past the end of its data.
  if (const auto last = lastIndexedTimestamp(st); last && span.lastDts < *last)
    return std::unexpected(
        MediaError::own(MediaError::Code::damagedMedia, "The index of " + name + " lists packets that cannot be read"));
  return span;
}

// Where the last frame stops being shown, in stream ticks. The track's own end (start plus
// duration, which edit lists and the muxer's last sample duration decide) is the truth when the
// packets confirm it: it must fall after the start of the last frame and no further than the
// longest frame past the packets' end. Otherwise (a missing or placeholder duration, as
// fragmented files write) the end of the last packet is used.
std::int64_t presentationEnd(const AVStream* st, const Span& span) {
  if (st->duration == AV_NOPTS_VALUE || st->duration <= 0) return span.end;
  const std::int64_t start = st->start_time != AV_NOPTS_VALUE ? st->start_time : span.first;
  std::int64_t declared = 0;
  std::int64_t latest = 0;
  if (__builtin_add_overflow(start, st->duration, &declared) || __builtin_add_overflow(span.end, span.longest, &latest))
    return span.end;
  return declared > span.last && declared <= latest ? declared : span.end;
}

// Whether times between `first` and `end` (stream ticks) stay within reach of the editor's exact
// arithmetic. A source time keeps the track's timescale; dividing it by a speed factor (up to 16)
// multiplies the timescale, and mixing it with the player's 90000-based times takes it to their
// least common multiple. That largest timescale, lcm(16 x den, 90000), must stay a 32-bit media
// timescale before the mixing (else it is rounded to 2^31 - 1, a prime, and the multiples explode),
// and every time at it must convert to 90000 ticks (or the sound's 48000) with room for a sum of
// two in 64 bits. Real files are far inside: at 1/600, 1/30000 or 1/90000 a video may last a year,
// at 1/10000000 ten hours. Only a crafted file or a damaged header gets near: frames years apart,
// or a timescale of more than 134217727 ticks per second.
bool timingFits(std::int64_t first, std::int64_t end, AVRational timeBase) {
  using timemath::Wide;
  constexpr std::int64_t kSlowest = multiplier(Speed::x16);
  constexpr std::int64_t kPlayer = RationalTime::kStandardTimescale;
  if (!valid(timeBase) || timeBase.den > std::numeric_limits<std::int32_t>::max() / kSlowest) return false;
  const std::int64_t common = std::lcm(kSlowest * timeBase.den, kPlayer);
  const Wide perTick = Wide{timeBase.num} * (common / timeBase.den) * kPlayer;
  const Wide limit = Wide{1} << 62;
  const auto fits = [&](std::int64_t ticks) { return (ticks < 0 ? -Wide{ticks} : Wide{ticks}) <= limit / perTick; };
  return fits(first) && fits(end);
}

VideoTrack describeVideo(const AVFormatContext* ctx, AVStream* st, int index, const Span& span) {
  const AVCodecParameters* par = st->codecpar;
  VideoTrack v;
  v.streamIndex = index;
  v.codec = par->codec_id;
  v.timeBase = st->time_base;
  v.firstTimestamp = span.first;
  // Within range: timingFits() held for the span's first and end ticks.
  v.duration = RationalTime((presentationEnd(st, span) - span.first) * st->time_base.num, st->time_base.den);
  v.frameRate = nominalFrameRate(st);
  v.width = par->width;
  v.height = par->height;
  const AVRational sar = av_guess_sample_aspect_ratio(const_cast<AVFormatContext*>(ctx), st, nullptr);
  v.sampleAspectRatio = valid(sar) ? av_make_q(sar.num, sar.den) : AVRational{1, 1};
  v.pixelFormat = static_cast<AVPixelFormat>(par->format);
  v.transform = displayTransformOf(st);
  v.colour = {par->color_primaries, par->color_trc, par->color_space, par->color_range};
  return v;
}

AudioTrack describeAudio(const AVStream* st, int index) {
  const AVCodecParameters* par = st->codecpar;
  AudioTrack a;
  a.streamIndex = index;
  a.codec = par->codec_id;
  a.timeBase = st->time_base;
  a.sampleRate = par->sample_rate;
  a.channelCount = par->ch_layout.nb_channels;
  a.channelMask = par->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? par->ch_layout.u.mask : 0;
  return a;
}

}  // namespace

std::expected<std::shared_ptr<const MediaAsset>, MediaError> MediaAsset::open(const std::filesystem::path& path,
                                                                              std::stop_token stop) {
  const std::string name = path.filename().string();
  auto input = MediaInput::open(path, std::move(stop));
  if (!input) return std::unexpected(input.error());
  // Taken once the file is open, so it describes the file whose streams are probed below.
  const std::optional<FileIdentity> identity = FileIdentity::of(path);
  AVFormatContext* ctx = input->context();

  std::optional<AudioTrack> audio;
  if (const int a = firstStream(ctx, isUsableAudio); a >= 0) audio = describeAudio(ctx->streams[a], a);

  std::optional<VideoTrack> video;
  if (const int v = firstStream(ctx, isRealVideo); v >= 0) {
    const auto span = measureSpan(*input, v, name);
    if (!span) return std::unexpected(span.error());
    AVStream* st = ctx->streams[v];
    if (span->counted > 0 && presentationEnd(st, *span) > span->first) {
      if (!timingFits(span->first, presentationEnd(st, *span), st->time_base))
        return std::unexpected(MediaError::own(MediaError::Code::damagedMedia,
                                               "The timing of " + name + " is beyond what the editor can compute"));
      video = describeVideo(ctx, st, v, *span);
    }
  }
  return std::make_shared<const MediaAsset>(path, std::move(video), std::move(audio), identity);
}

}  // namespace vantrix
