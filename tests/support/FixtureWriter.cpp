#include "FixtureWriter.h"

#include "Barcode.h"
#include "FfmpegHandles.h"

extern "C" {
#include <libavutil/display.h>
}

#include <QTransform>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <stdexcept>
#include <string>

namespace vantrix::testing {
namespace {

constexpr double kToneAmplitude = 0.5;  // -6 dBFS: loud enough to dominate codec noise, far from clipping
constexpr int kPcmFrameSamples = 1024;
constexpr int kAacBitRatePerChannel = 64000;
// Quality settings in the range users' files come in; the barcode is read back at these.
constexpr const char* kX264Preset = "veryfast";
constexpr const char* kX264Crf = "23";
constexpr int kX264BFrames = 2;
constexpr int kQuantiser = 4;  // MPEG-4 Part 2 and Motion JPEG, 2 (best) .. 31
constexpr int kCoverWidth = 160;
constexpr int kCoverHeight = 160;

int check(int code, const std::string& step) {
  if (code < 0) throw std::runtime_error("fixture writer: " + step + ": " + ffmpegError(code));
  return code;
}

template <typename T>
T* require(T* object, const std::string& step) {
  if (object == nullptr) throw std::runtime_error("fixture writer: " + step + " failed");
  return object;
}

const char* muxerFor(const FixtureSpec& recipe) {
  if (recipe.audio != AudioLayout::none && recipe.audioCodec == AudioCodec::pcm) return "mov";
  switch (recipe.container) {
    case Container::mov: return "mov";
    case Container::m4v: return "ipod";
    case Container::mp4: break;
  }
  return "mp4";
}

AVChannelLayout layoutFor(AudioLayout layout) {
  switch (layout) {
    case AudioLayout::mono: return AV_CHANNEL_LAYOUT_MONO;
    case AudioLayout::stereo: return AV_CHANNEL_LAYOUT_STEREO;
    case AudioLayout::surround51: return AV_CHANNEL_LAYOUT_5POINT1_BACK;  // the 5.1 the AAC encoder takes
    case AudioLayout::none: break;
  }
  return AV_CHANNEL_LAYOUT_MONO;
}

// A constant-rate stream is encoded in frame units, as recording tools do, so that the encoder
// writes the true rate into the bitstream (H.264 timing info); the demuxer relies on it for packet
// durations. Variable-rate streams use the fine container time base throughout.
AVRational encoderTimeBase(const FixtureSpec& recipe) {
  if (recipe.variableFrameRate) return {1, static_cast<int>(videoTimescale(recipe))};
  return {recipe.frameRateDen, recipe.frameRateNum};
}

std::int64_t encoderPts(const FixtureSpec& recipe, std::int64_t frameIndex) {
  return recipe.variableFrameRate ? frameTicks(recipe, frameIndex) : frameIndex;
}

// The picture stored for a frame: the code drawn upright at the displayed size, turned back by the
// display rotation so that applying the rotation shows it upright.
QImage storedPicture(const FixtureSpec& recipe, std::int64_t index) {
  const bool sideways = recipe.rotation == 90 || recipe.rotation == 270;
  const QImage upright = drawBarcode(index, sideways ? recipe.height : recipe.width, sideways ? recipe.width : recipe.height);
  return recipe.rotation == 0 ? upright : upright.transformed(QTransform().rotate(-recipe.rotation));
}

// Copies a 0/255 grey picture into a planar YUV 4:2:0 frame as neutral grey levels.
void fillFrame(AVFrame& frame, const QImage& gray, bool fullRange) {
  for (int y = 0; y < frame.height; ++y) {
    const uchar* in = gray.constScanLine(y);
    uint8_t* out = frame.data[0] + static_cast<std::ptrdiff_t>(y) * frame.linesize[0];
    for (int x = 0; x < frame.width; ++x) out[x] = static_cast<uint8_t>(fullRange ? in[x] : 16 + in[x] * 219 / 255);
  }
  for (int plane = 1; plane <= 2; ++plane)
    for (int y = 0; y < (frame.height + 1) / 2; ++y)
      std::fill_n(frame.data[plane] + static_cast<std::ptrdiff_t>(y) * frame.linesize[plane], (frame.width + 1) / 2,
                  uint8_t{128});
}

FramePtr allocatePicture(const AVCodecContext& encoder) {
  FramePtr frame(require(av_frame_alloc(), "frame allocation"));
  frame->format = encoder.pix_fmt;
  frame->width = encoder.width;
  frame->height = encoder.height;
  check(av_frame_get_buffer(frame.get(), 0), "picture buffer");
  return frame;
}

// Encoder and stream of one output track.
struct Track {
  CodecContextPtr encoder;
  AVStream* stream = nullptr;
};

class Writer {
 public:
  Writer(const FixtureSpec& recipe, const std::filesystem::path& path) : m_spec(recipe), m_path(path) {}

  void run() {
    AVFormatContext* output = nullptr;
    check(avformat_alloc_output_context2(&output, nullptr, muxerFor(m_spec), m_path.c_str()), "output context");
    m_output.reset(output);
    m_output->flags |= AVFMT_FLAG_BITEXACT;  // no library version strings: identical bytes on every run
    if (m_spec.audioOnly || m_spec.coverArtOnly) {
      if (m_spec.coverArtOnly) m_cover = addCoverStream();
    } else {
      m_video = addVideoStream();
    }
    if (m_spec.audio != AudioLayout::none) m_audio = addAudioStream();
    writeHeader();
    if (m_cover != nullptr) writeCover();
    writeMedia();
    check(av_write_trailer(m_output.get()), "trailer");
    if (m_video.stream != nullptr && (m_video.stream->time_base.num != 1 ||
                                      m_video.stream->time_base.den != videoTimescale(m_spec)))
      throw std::runtime_error("fixture writer: the muxer chose another video time base");
  }

 private:
  CodecContextPtr openEncoder(const char* name, AVStream* stream, void (*configure)(AVCodecContext&, const FixtureSpec&),
                              AVDictionary** options) {
    const AVCodec* codec = require(avcodec_find_encoder_by_name(name), std::string("finding encoder ") + name);
    CodecContextPtr encoder(require(avcodec_alloc_context3(codec), "encoder context"));
    encoder->thread_count = 1;  // one thread: the same bytes whatever the machine
    encoder->flags |= AV_CODEC_FLAG_BITEXACT;
    if (m_output->oformat->flags & AVFMT_GLOBALHEADER) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    configure(*encoder, m_spec);
    check(avcodec_open2(encoder.get(), codec, options), std::string("opening encoder ") + name);
    check(avcodec_parameters_from_context(stream->codecpar, encoder.get()), "stream parameters");
    stream->time_base = encoder->time_base;
    return encoder;
  }

  Track addVideoStream() {
    static constexpr const char* kEncoders[] = {"libx264", "mpeg4", "mjpeg"};
    Track track;
    track.stream = require(avformat_new_stream(m_output.get(), nullptr), "video stream");
    AVDictionary* options = nullptr;
    if (m_spec.codec == VideoCodec::h264) {
      av_dict_set(&options, "preset", kX264Preset, 0);
      av_dict_set(&options, "crf", kX264Crf, 0);
      // Keyframes exactly every gopFrames, and always two B-frames between references (x264 would
      // choose few on pictures this still), so that decode and presentation order differ throughout.
      av_dict_set(&options, "x264-params", "scenecut=0:b-adapt=0:log=0", 0);
    }
    auto configure = [](AVCodecContext& c, const FixtureSpec& recipe) {
      c.width = recipe.width;
      c.height = recipe.height;
      c.sample_aspect_ratio = {1, 1};
      c.time_base = encoderTimeBase(recipe);
      c.framerate = {recipe.frameRateNum, recipe.frameRateDen};
      c.gop_size = recipe.gopFrames;
      c.pix_fmt = recipe.codec == VideoCodec::mjpeg ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
      c.color_range = recipe.codec == VideoCodec::mjpeg ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
      if (recipe.codec == VideoCodec::h264) {
        c.max_b_frames = kX264BFrames;
      } else {
        c.flags |= AV_CODEC_FLAG_QSCALE;
        c.global_quality = FF_QP2LAMBDA * kQuantiser;
      }
    };
    track.encoder = openEncoder(kEncoders[static_cast<int>(m_spec.codec)], track.stream, configure, &options);
    av_dict_free(&options);
    // Decode times are the frame times moved back by the deepest reordering, as x264 does at a
    // constant rate. x264 derives them differently at irregular rates, and then their span (and
    // with it the container's track length) misses the frames' span by a fraction of a frame.
    std::int64_t longest = 0;
    for (std::int64_t i = 0, n = frameCount(m_spec); i < n; ++i)
      longest = std::max(longest, encoderPts(m_spec, i + 1) - encoderPts(m_spec, i));
    m_dtsShift = track.encoder->has_b_frames * longest;
    if (!m_spec.variableFrameRate) track.stream->avg_frame_rate = {m_spec.frameRateNum, m_spec.frameRateDen};
    if (m_spec.rotation != 0) {
      auto* matrix = reinterpret_cast<int32_t*>(require(
          av_stream_new_side_data(track.stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)), "display matrix"));
      av_display_rotation_set(matrix, m_spec.rotation);  // clockwise here, unlike av_display_rotation_get
    }
    return track;
  }

  Track addAudioStream() {
    Track track;
    track.stream = require(avformat_new_stream(m_output.get(), nullptr), "audio stream");
    auto configure = [](AVCodecContext& c, const FixtureSpec& recipe) {
      c.ch_layout = layoutFor(recipe.audio);
      c.sample_rate = recipe.sampleRate;
      c.time_base = {1, recipe.sampleRate};
      if (recipe.audioCodec == AudioCodec::aac) {
        c.sample_fmt = AV_SAMPLE_FMT_FLTP;
        c.bit_rate = std::int64_t{kAacBitRatePerChannel} * c.ch_layout.nb_channels;
      } else {
        c.sample_fmt = AV_SAMPLE_FMT_S16;
      }
    };
    const bool aac = m_spec.audioCodec == AudioCodec::aac;
    track.encoder = openEncoder(aac ? "aac" : "pcm_s16le", track.stream, configure, nullptr);
    m_totalSamples = std::llround(m_spec.seconds * m_spec.sampleRate);
    return track;
  }

  AVStream* addCoverStream() {
    AVStream* stream = require(avformat_new_stream(m_output.get(), nullptr), "cover stream");
    stream->disposition = AV_DISPOSITION_ATTACHED_PIC;
    stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    stream->codecpar->codec_id = AV_CODEC_ID_MJPEG;
    stream->codecpar->width = kCoverWidth;
    stream->codecpar->height = kCoverHeight;
    return stream;
  }

  void writeHeader() {
    check(avio_open(&m_output->pb, m_path.c_str(), AVIO_FLAG_WRITE), "opening " + m_path.string());
    AVDictionary* options = nullptr;
    // The video time base is part of the recipe (frameTime), so it is set rather than left to the muxer.
    if (m_video.stream != nullptr)
      av_dict_set_int(&options, "video_track_timescale", videoTimescale(m_spec), 0);
    const int result = avformat_write_header(m_output.get(), &options);
    av_dict_free(&options);
    check(result, "header");
  }

  // Cover art is one JPEG of a plain grey square: an image, not a frame of the movie.
  void writeCover() {
    const AVCodec* codec = require(avcodec_find_encoder(AV_CODEC_ID_MJPEG), "finding the JPEG encoder");
    CodecContextPtr encoder(require(avcodec_alloc_context3(codec), "cover encoder"));
    encoder->width = kCoverWidth;
    encoder->height = kCoverHeight;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->time_base = {1, 1};
    encoder->flags |= AV_CODEC_FLAG_BITEXACT;
    check(avcodec_open2(encoder.get(), codec, nullptr), "opening the cover encoder");
    FramePtr frame = allocatePicture(*encoder);
    QImage gray(kCoverWidth, kCoverHeight, QImage::Format_Grayscale8);
    gray.fill(128);
    fillFrame(*frame, gray, true);
    frame->pts = 0;
    check(avcodec_send_frame(encoder.get(), frame.get()), "encoding the cover");
    PacketPtr packet(require(av_packet_alloc(), "packet allocation"));
    check(avcodec_receive_packet(encoder.get(), packet.get()), "encoding the cover");
    packet->stream_index = m_cover->index;
    packet->flags |= AV_PKT_FLAG_KEY;
    // Straight to the muxer, which keeps it for the file's metadata: it has no place in the
    // interleaved media, and the interleaver would wait for a second picture that never comes.
    check(av_write_frame(m_output.get(), packet.get()), "writing the cover");
  }

  // Video frames and audio chunks in time order, then the encoders' delayed packets.
  void writeMedia() {
    const std::int64_t frames = m_video.stream != nullptr ? frameCount(m_spec) : 0;
    const std::int64_t timescale = videoTimescale(m_spec);
    FramePtr picture = m_video.stream != nullptr ? allocatePicture(*m_video.encoder) : nullptr;
    std::int64_t frame = 0;
    while (frame < frames || m_writtenSamples < m_totalSamples) {
      const bool videoFirst = frame < frames && (m_writtenSamples >= m_totalSamples ||
                                                 frameTicks(m_spec, frame) * m_spec.sampleRate <=
                                                     m_writtenSamples * timescale);
      if (videoFirst)
        encodeVideoFrame(*picture, frame++);
      else
        encodeAudioChunk();
    }
    if (m_video.stream != nullptr) send(m_video, nullptr);
    if (m_audio.stream != nullptr) send(m_audio, nullptr);
  }

  void encodeVideoFrame(AVFrame& picture, std::int64_t index) {
    check(av_frame_make_writable(&picture), "picture buffer");
    fillFrame(picture, storedPicture(m_spec, index), m_spec.codec == VideoCodec::mjpeg);
    picture.pts = encoderPts(m_spec, index);
    // Encoders do not carry durations through reordering; the packets get them back by pts.
    m_durationByPts[picture.pts] = encoderPts(m_spec, index + 1) - picture.pts;
    send(m_video, &picture);
  }

  // The next chunk of tone: one sine per source second, phase continuous across the changes so
  // that no click spreads energy over other frequencies.
  void encodeAudioChunk() {
    AVCodecContext& encoder = *m_audio.encoder;
    const int chunk = encoder.frame_size > 0 ? encoder.frame_size : kPcmFrameSamples;
    FramePtr frame(require(av_frame_alloc(), "frame allocation"));
    frame->nb_samples = static_cast<int>(std::min<std::int64_t>(chunk, m_totalSamples - m_writtenSamples));
    frame->format = encoder.sample_fmt;
    frame->sample_rate = encoder.sample_rate;
    check(av_channel_layout_copy(&frame->ch_layout, &encoder.ch_layout), "channel layout");
    check(av_frame_get_buffer(frame.get(), 0), "audio buffer");
    const int channels = encoder.ch_layout.nb_channels;
    for (int i = 0; i < frame->nb_samples; ++i) {
      const auto second = static_cast<int>((m_writtenSamples + i) / m_spec.sampleRate);
      const double value = kToneAmplitude * std::sin(m_phase);
      m_phase = std::fmod(m_phase + 2 * std::numbers::pi * toneForSecond(second) / m_spec.sampleRate,
                          2 * std::numbers::pi);
      for (int ch = 0; ch < channels; ++ch) {
        if (encoder.sample_fmt == AV_SAMPLE_FMT_FLTP)
          reinterpret_cast<float*>(frame->extended_data[ch])[i] = static_cast<float>(value);
        else
          reinterpret_cast<int16_t*>(frame->data[0])[i * channels + ch] = static_cast<int16_t>(std::lround(value * 32767));
      }
    }
    frame->pts = m_writtenSamples;
    m_writtenSamples += frame->nb_samples;
    send(m_audio, frame.get());
  }

  // Sends one frame (null: end of stream) and writes every packet the encoder has ready. Video
  // packets are written one behind, so that the last one can be adjusted when the stream ends.
  void send(Track& track, const AVFrame* frame) {
    check(avcodec_send_frame(track.encoder.get(), frame), "encoding");
    PacketPtr packet(require(av_packet_alloc(), "packet allocation"));
    for (;;) {
      const int result = avcodec_receive_packet(track.encoder.get(), packet.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) break;
      check(result, "encoding");
      if (&track != &m_video) {
        write(track, *packet);
        continue;
      }
      packet->duration = m_durationByPts.at(packet->pts);
      packet->dts = encoderPts(m_spec, m_videoPackets++) - m_dtsShift;
      if (packet->dts > packet->pts) throw std::runtime_error("fixture writer: frames reordered deeper than expected");
      if (m_heldVideo) write(track, *m_heldVideo);
      m_heldVideo.swap(packet);
      if (!packet) packet.reset(require(av_packet_alloc(), "packet allocation"));
    }
    if (frame == nullptr && &track == &m_video && m_heldVideo) finishVideo();
  }

  // The last packet in decode order carries the last frame's duration, whichever frame it is: the
  // track's length is the span of decode times plus that duration, so it ends exactly where the
  // last frame does.
  void finishVideo() {
    const std::int64_t frames = frameCount(m_spec);
    m_heldVideo->duration = encoderPts(m_spec, frames) - encoderPts(m_spec, frames - 1);
    write(m_video, *m_heldVideo);
    m_heldVideo.reset();
  }

  void write(Track& track, AVPacket& packet) {
    packet.stream_index = track.stream->index;
    av_packet_rescale_ts(&packet, track.encoder->time_base, track.stream->time_base);
    check(av_interleaved_write_frame(m_output.get(), &packet), "writing a packet");
  }

  const FixtureSpec& m_spec;
  std::filesystem::path m_path;
  OutputContextPtr m_output;
  Track m_video;
  Track m_audio;
  AVStream* m_cover = nullptr;
  std::int64_t m_totalSamples = 0;
  std::int64_t m_writtenSamples = 0;
  double m_phase = 0;
  std::map<std::int64_t, std::int64_t> m_durationByPts;
  std::int64_t m_videoPackets = 0;
  std::int64_t m_dtsShift = 0;
  PacketPtr m_heldVideo;
};

}  // namespace

void writeFixture(const FixtureSpec& recipe, const std::filesystem::path& path) {
  // The encoders print their settings and statistics at info level: noise in test output. The
  // process-wide level is lowered while writing and restored afterwards, even on failure.
  struct LogLevel {
    int saved = av_log_get_level();
    ~LogLevel() { av_log_set_level(saved); }
  } restore;
  av_log_set_level(std::min(restore.saved, AV_LOG_WARNING));
  Writer(recipe, path).run();
}

}  // namespace vantrix::testing
