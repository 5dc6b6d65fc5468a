// Writing fixtures: the recipes' timing, the cache of files made so far, the encoding and muxing of one recipe.

#include "FixtureWriter.h"

#include "FixtureDecoding.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/opt.h>
}

#include <QTransform>

#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <numbers>
#include <stdexcept>
#include <string>
#include <vector>

namespace vantrix::testing {
namespace fs = std::filesystem;
namespace {

// Variable-rate frames last these tenths of the nominal duration in turn (no two neighbours alike, 70 tenths a cycle),
// at 60000 ticks/s: fine enough for every common rate, within the mpeg4 encoder's 16-bit time resolution.
constexpr std::int64_t kVariableTenths[] = {10, 8, 13, 9, 11, 7, 12};
constexpr int kVariableTimescale = 60000;

// PCM audio goes to the QuickTime muxer whatever the extension: the MPEG-4 muxers refuse it.
bool quickTime(const FixtureSpec& r) {
  return r.container == Container::mov || (r.audio != AudioLayout::none && r.audioCodec == AudioCodec::pcm);
}

std::int64_t videoTimescale(const FixtureSpec& r) {
  if (r.variableFrameRate) return kVariableTimescale;
  // The mov muxer's own choice: the numerator doubled up to 10000 or more, so that every frame lasts whole ticks.
  std::int64_t timescale = r.frameRateNum;
  while (timescale < 10000) timescale *= 2;
  return timescale;
}

// Start of source frame i in the video stream's ticks.
std::int64_t frameTicks(const FixtureSpec& r, std::int64_t i) {
  const std::int64_t timescale = videoTimescale(r);
  if (!r.variableFrameRate) return i * (timescale / r.frameRateNum) * r.frameRateDen;
  std::int64_t tenths = i / 7 * 70;
  for (std::size_t k = 0; k < static_cast<std::size_t>(i % 7); ++k) tenths += kVariableTenths[k];
  const std::int64_t den = 10 * r.frameRateNum;  // tenths * nominal duration / 10, to the nearest tick
  return (2 * tenths * timescale * r.frameRateDen + den) / (2 * den);
}

// Constant-rate video is encoded in frame units, as recording tools do, so that the encoder writes the true rate into
// the bitstream (H.264 timing info) that the demuxer takes packet durations from; variable-rate video in ticks.
std::int64_t encoderPts(const FixtureSpec& r, std::int64_t i) { return r.variableFrameRate ? frameTicks(r, i) : i; }

// Recipes the muxers would write wrongly without complaint; other impossible ones fail at the step that cannot be done.
void validate(const FixtureSpec& r) {
  if (r.rotation % 90 != 0 || r.rotation < 0 || r.rotation > 270)
    throw std::runtime_error("fixture recipe refused: rotation " + std::to_string(r.rotation));
  if (r.coverArtOnly && quickTime(r)) throw std::runtime_error("fixture recipe refused: QuickTime drops cover art");
}

// One folder per test process holding every file made so far, removed when the process ends.
struct FixtureCache {
  fs::path folder = fs::temp_directory_path() / ("vantrix-fixtures-" + std::to_string(::getpid()));
  std::vector<std::pair<FixtureSpec, fs::path>> files;
  FixtureCache() {
    fs::remove_all(folder);  // left by a crashed process that had our pid
    fs::create_directories(folder);
  }
  ~FixtureCache() {
    std::error_code ignored;
    if (std::getenv("VANTRIX_KEEP_FIXTURES") == nullptr) fs::remove_all(folder, ignored);
  }
};

int check(int code, const std::string& step) {
  char e[AV_ERROR_MAX_STRING_SIZE] = {};
  if (code < 0) throw std::runtime_error("fixture writer: " + step + ": " + av_make_error_string(e, sizeof e, code));
  return code;
}

template <typename T>
T* require(T* object, const std::string& step) {
  if (object == nullptr) throw std::runtime_error("fixture writer: " + step + " failed");
  return object;
}

// A 0/255 grey picture into a new planar YUV 4:2:0 frame at `pts` for `encoder`, as neutral grey levels.
FramePtr pictureFrame(const AVCodecContext& encoder, const QImage& gray, std::int64_t pts) {
  const bool fullRange = encoder.pix_fmt == AV_PIX_FMT_YUVJ420P;
  FramePtr frame(require(av_frame_alloc(), "frame allocation"));
  frame->format = encoder.pix_fmt;
  frame->width = encoder.width;
  frame->height = encoder.height;
  frame->pts = pts;
  check(av_frame_get_buffer(frame.get(), 0), "picture buffer");
  for (int y = 0; y < frame->height; ++y) {
    const uchar* in = gray.constScanLine(y);
    uint8_t* out = frame->data[0] + static_cast<std::ptrdiff_t>(y) * frame->linesize[0];
    for (int x = 0; x < frame->width; ++x) out[x] = static_cast<uint8_t>(fullRange ? in[x] : 16 + in[x] * 219 / 255);
  }
  for (int plane = 1; plane <= 2; ++plane)
    for (int y = 0; y < (frame->height + 1) / 2; ++y)
      std::fill_n(frame->data[plane] + static_cast<std::ptrdiff_t>(y) * frame->linesize[plane], (frame->width + 1) / 2,
                  uint8_t{128});
  return frame;
}

struct Track {
  CodecContextPtr encoder;
  AVStream* stream = nullptr;
};

class Writer {
 public:
  Writer(const FixtureSpec& recipe, const fs::path& path) : m_recipe(recipe), m_path(path) {}

  void run() {
    AVFormatContext* output = nullptr;
    const char* muxer = quickTime(m_recipe) ? "mov" : m_recipe.container == Container::m4v ? "ipod" : "mp4";
    check(avformat_alloc_output_context2(&output, nullptr, muxer, m_path.c_str()), "output context");
    m_output.reset(output);
    m_output->flags |= AVFMT_FLAG_BITEXACT;  // no library version strings: the same bytes on every run
    if (!m_recipe.audioOnly) m_recipe.coverArtOnly ? addCover() : addVideo();
    if (m_recipe.audio != AudioLayout::none) addAudio();
    check(avio_open(&m_output->pb, m_path.c_str(), AVIO_FLAG_WRITE), "opening " + m_path.string());
    // The video time base is part of the recipe (frameTime), so it is set rather than left to the muxer.
    if (m_video.stream != nullptr)
      check(av_opt_set_int(m_output->priv_data, "video_track_timescale", videoTimescale(m_recipe), 0), "time base");
    check(avformat_write_header(m_output.get(), nullptr), "header");
    if (m_cover.stream != nullptr) {
      QImage gray(m_cover.encoder->width, m_cover.encoder->height, QImage::Format_Grayscale8);
      gray.fill(128);
      send(m_cover, pictureFrame(*m_cover.encoder, gray, 0).get());
    }
    writeMedia();
    check(av_write_trailer(m_output.get()), "trailer");
  }

 private:
  // An encoder for a new stream, to be configured and then started.
  static Track newTrack(AVFormatContext& output, const char* name) {
    Track track{nullptr, require(avformat_new_stream(&output, nullptr), "new stream")};
    const AVCodec* codec = require(avcodec_find_encoder_by_name(name), std::string("finding encoder ") + name);
    track.encoder.reset(require(avcodec_alloc_context3(codec), "encoder context"));
    track.encoder->thread_count = 1;  // one thread: the same bytes whatever the machine
    track.encoder->flags |= AV_CODEC_FLAG_BITEXACT;
    if (output.oformat->flags & AVFMT_GLOBALHEADER) track.encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return track;
  }
  static void start(Track& track) {
    check(avcodec_open2(track.encoder.get(), track.encoder->codec, nullptr), "opening the encoder");
    check(avcodec_parameters_from_context(track.stream->codecpar, track.encoder.get()), "stream parameters");
    track.stream->time_base = track.encoder->time_base;
  }

  void addVideo() {
    static constexpr const char* kEncoders[] = {"libx264", "mpeg4", "mjpeg"};
    m_video = newTrack(*m_output, kEncoders[static_cast<int>(m_recipe.codec)]);
    AVCodecContext& c = *m_video.encoder;
    const bool mjpeg = m_recipe.codec == VideoCodec::mjpeg;
    c.width = m_recipe.width;
    c.height = m_recipe.height;
    c.sample_aspect_ratio = {1, 1};
    c.time_base = m_recipe.variableFrameRate ? AVRational{1, kVariableTimescale}
                                             : AVRational{m_recipe.frameRateDen, m_recipe.frameRateNum};
    c.framerate = {m_recipe.frameRateNum, m_recipe.frameRateDen};
    c.gop_size = m_recipe.gopFrames;
    c.pix_fmt = mjpeg ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    c.color_range = mjpeg ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    if (m_recipe.codec == VideoCodec::h264) {
      // The quality users' files come in. Keyframes exactly every gopFrames, and always two B-frames between references
      // (x264 would choose few on pictures this still), so that decode and presentation order differ throughout.
      c.max_b_frames = 2;
      for (const auto& [key, value] :
           {std::pair{"preset", "veryfast"}, {"crf", "23"}, {"x264-params", "scenecut=0:b-adapt=0:log=0"}})
        check(av_opt_set(c.priv_data, key, value, 0), key);
    } else {
      c.flags |= AV_CODEC_FLAG_QSCALE;
      c.global_quality = FF_QP2LAMBDA * 4;  // quantiser 4 of 2 (best) .. 31
    }
    start(m_video);
    // Decode times are frame times moved back by the deepest reordering, as x264 does at a constant rate (its own at
    // irregular rates would make the track's length miss the frames' span by a fraction of a frame).
    std::int64_t longest = 0;
    for (std::int64_t i = 0, n = frameCount(m_recipe); i < n; ++i)
      longest = std::max(longest, encoderPts(m_recipe, i + 1) - encoderPts(m_recipe, i));
    m_dtsShift = c.has_b_frames * longest;
    if (!m_recipe.variableFrameRate) m_video.stream->avg_frame_rate = c.framerate;
    if (m_recipe.rotation != 0) {  // clockwise here, unlike av_display_rotation_get
      uint8_t* matrix = av_stream_new_side_data(m_video.stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t));
      av_display_rotation_set(reinterpret_cast<int32_t*>(require(matrix, "display matrix")), m_recipe.rotation);
    }
  }

  void addAudio() {
    const bool aac = m_recipe.audioCodec == AudioCodec::aac;
    m_audio = newTrack(*m_output, aac ? "aac" : "pcm_s16le");
    AVCodecContext& c = *m_audio.encoder;
    const int channels[] = {1, 1, 2, 6};
    av_channel_layout_default(&c.ch_layout, channels[static_cast<int>(m_recipe.audio)]);
    c.sample_rate = m_recipe.sampleRate;
    c.time_base = {1, m_recipe.sampleRate};
    c.sample_fmt = aac ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_S16;
    if (aac) c.bit_rate = std::int64_t{64000} * c.ch_layout.nb_channels;
    start(m_audio);
    m_totalSamples = std::llround(m_recipe.seconds * m_recipe.sampleRate);
  }

  // Cover art: one JPEG of a plain grey square, an image rather than a frame of the movie.
  void addCover() {
    m_cover = newTrack(*m_output, "mjpeg");
    m_cover.encoder->width = m_cover.encoder->height = 160;
    m_cover.encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    m_cover.encoder->time_base = {1, 1};
    start(m_cover);
    m_cover.stream->disposition = AV_DISPOSITION_ATTACHED_PIC;
  }

  // Video frames and audio chunks in time order, then the encoders' delayed packets.
  void writeMedia() {
    const std::int64_t frames = m_video.stream != nullptr ? frameCount(m_recipe) : 0;
    for (std::int64_t frame = 0; frame < frames || m_writtenSamples < m_totalSamples;) {
      if (frame < frames && (m_writtenSamples >= m_totalSamples || frameTicks(m_recipe, frame) * m_recipe.sampleRate <=
                                                                       m_writtenSamples * videoTimescale(m_recipe))) {
        // The code drawn upright at the displayed size, turned back by the rotation that will show it upright.
        const bool sideways = m_recipe.rotation % 180 != 0;
        const QImage upright = drawBarcode(frame, sideways ? m_recipe.height : m_recipe.width,
                                           sideways ? m_recipe.width : m_recipe.height);
        FramePtr picture = pictureFrame(*m_video.encoder, upright.transformed(QTransform().rotate(-m_recipe.rotation)),
                                        encoderPts(m_recipe, frame));
        // Encoders do not carry durations through reordering; the packets get them back by pts.
        m_durationByPts[picture->pts] = encoderPts(m_recipe, ++frame) - picture->pts;
        send(m_video, picture.get());
      } else {
        writeTone();
      }
    }
    if (m_video.stream != nullptr) send(m_video, nullptr);
    if (m_audio.stream != nullptr) send(m_audio, nullptr);
  }

  // The next chunk of tone at -6 dBFS, one sine per source second, phase continuous so that no click spreads energy.
  void writeTone() {
    AVCodecContext& encoder = *m_audio.encoder;
    FramePtr frame(require(av_frame_alloc(), "frame allocation"));
    const int chunk = encoder.frame_size > 0 ? encoder.frame_size : 1024;
    frame->nb_samples = static_cast<int>(std::min<std::int64_t>(chunk, m_totalSamples - m_writtenSamples));
    frame->format = encoder.sample_fmt;
    frame->sample_rate = encoder.sample_rate;
    check(av_channel_layout_copy(&frame->ch_layout, &encoder.ch_layout), "channel layout");
    check(av_frame_get_buffer(frame.get(), 0), "audio buffer");
    const int channels = encoder.ch_layout.nb_channels;
    for (int i = 0; i < frame->nb_samples; ++i) {
      const double value = 0.5 * std::sin(m_phase);
      const auto second = static_cast<int>((m_writtenSamples + i) / m_recipe.sampleRate);
      m_phase =
          std::fmod(m_phase + 2 * std::numbers::pi * toneForSecond(second) / m_recipe.sampleRate, 2 * std::numbers::pi);
      for (int ch = 0; ch < channels; ++ch) {
        if (encoder.sample_fmt == AV_SAMPLE_FMT_FLTP)
          reinterpret_cast<float*>(frame->extended_data[ch])[i] = static_cast<float>(value);
        else
          reinterpret_cast<int16_t*>(frame->data[0])[i * channels + ch] =
              static_cast<int16_t>(std::lround(value * 32767));
      }
    }
    frame->pts = m_writtenSamples;
    m_writtenSamples += frame->nb_samples;
    send(m_audio, frame.get());
  }

  // Sends a frame (null: the end) and writes what the encoder has ready. Video is written one packet behind, so that
  // the last in decode order can carry the last frame's duration: the track then ends exactly where that frame does.
  void send(Track& track, const AVFrame* frame) {
    check(avcodec_send_frame(track.encoder.get(), frame), "encoding");
    for (PacketPtr packet(require(av_packet_alloc(), "packet allocation"));;) {
      const int result = avcodec_receive_packet(track.encoder.get(), packet.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) break;
      check(result, "encoding");
      if (&track == &m_video) {
        packet->duration = m_durationByPts.at(packet->pts);
        packet->dts = encoderPts(m_recipe, m_videoPackets++) - m_dtsShift;
        packet.swap(m_heldVideo);  // to write the one held before
        if (!packet) {
          packet.reset(require(av_packet_alloc(), "packet allocation"));
          continue;
        }
      }
      write(track, *packet);
    }
    if (frame == nullptr && &track == &m_video && m_heldVideo) {
      const std::int64_t frames = frameCount(m_recipe);
      m_heldVideo->duration = encoderPts(m_recipe, frames) - encoderPts(m_recipe, frames - 1);
      write(m_video, *m_heldVideo);
    }
  }

  // The cover goes straight to the muxer (the interleaver would wait for a second picture that never comes).
  void write(Track& track, AVPacket& packet) {
    packet.stream_index = track.stream->index;
    if (&track == &m_cover) return (void)check(av_write_frame(m_output.get(), &packet), "writing the cover");
    av_packet_rescale_ts(&packet, track.encoder->time_base, track.stream->time_base);
    check(av_interleaved_write_frame(m_output.get(), &packet), "writing a packet");
  }

  const FixtureSpec& m_recipe;
  fs::path m_path;
  OutputContextPtr m_output;
  Track m_video, m_audio, m_cover;
  std::int64_t m_totalSamples = 0, m_writtenSamples = 0, m_videoPackets = 0, m_dtsShift = 0;
  double m_phase = 0;
  std::map<std::int64_t, std::int64_t> m_durationByPts;
  PacketPtr m_heldVideo;
};

}  // namespace

void writeFixture(const FixtureSpec& recipe, const fs::path& path) {
  validate(recipe);
  // The encoders' settings and statistics at info level are noise in test output: quieter while writing.
  struct LogLevel {
    int saved = av_log_get_level();
    ~LogLevel() { av_log_set_level(saved); }
  } restore;
  av_log_set_level(std::min(restore.saved, AV_LOG_WARNING));
  Writer(recipe, path).run();
}

fs::path fixture(const FixtureSpec& recipe) {
  static FixtureCache cache;
  for (const auto& [known, path] : cache.files)
    if (known == recipe) return path;
  static constexpr const char* kDamage[] = {"", "-truncated", "-zeroed"};
  std::string extension = recipe.container == Container::mov   ? "mov"
                          : recipe.container == Container::m4v ? "m4v"
                                                               : "mp4";
  if (recipe.upperCaseExtension)
    for (char& c : extension) c = static_cast<char>(std::toupper(c));
  const fs::path target = cache.folder / ("fixture" + std::to_string(cache.files.size()) +
                                          kDamage[static_cast<int>(recipe.damage)] + "." + extension);
  if (recipe.damage == Damage::none) {
    writeFixture(recipe, target);
  } else {
    FixtureSpec whole = recipe;
    whole.damage = Damage::none;
    fs::copy_file(fixture(whole), target, fs::copy_options::overwrite_existing);
    if (recipe.damage == Damage::truncated) {
      fs::resize_file(target, fs::file_size(target) / 2);
    } else {  // the header and more
      std::fstream stream(target, std::ios::in | std::ios::out | std::ios::binary);
      const std::string zeros(std::min<std::uintmax_t>(fs::file_size(target), 4096), '\0');
      if (!stream.write(zeros.data(), static_cast<std::streamsize>(zeros.size())))
        throw std::runtime_error("cannot damage " + target.string());
    }
  }
  cache.files.emplace_back(recipe, target);
  return target;
}

RationalTime frameTime(const FixtureSpec& recipe, std::int64_t frameIndex) {
  return {frameTicks(recipe, frameIndex), videoTimescale(recipe)};
}

std::int64_t frameCount(const FixtureSpec& recipe) {
  if (recipe.audioOnly || recipe.coverArtOnly) return 0;
  const double end = recipe.seconds * static_cast<double>(videoTimescale(recipe));
  std::int64_t count = 0;
  while (static_cast<double>(frameTicks(recipe, count)) < end - 1e-6) ++count;
  return count;
}

// The tones start high enough for a short window to hold many cycles and step widely enough for a Hann-windowed
// Goertzel filter over 0.05 s to keep neighbours apart; sixty of them reach 3200 Hz, far below any AAC low-pass.
double toneForSecond(int second) {
  return 250 + 50 * (((second % kDistinctToneSeconds) + kDistinctToneSeconds) % kDistinctToneSeconds);
}

}  // namespace vantrix::testing
