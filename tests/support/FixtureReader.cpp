#include "FixtureDecoding.h"
#include "MediaFixture.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
}

#include <QTransform>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vantrix::testing {
namespace {

// Clockwise quarter turns, in degrees, that show the stream's pictures upright: the display
// matrix's rotation (FFmpeg measures it counter-clockwise), rounded to a quarter turn.
int displayRotation(const AVStream& stream) {
  size_t size = 0;
  const uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (matrix == nullptr || size < 9 * sizeof(int32_t)) return 0;
  const double counterClockwise = av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
  if (std::isnan(counterClockwise)) return 0;
  const long quarter = std::lround(-counterClockwise / 90);
  return static_cast<int>(((quarter % 4) + 4) % 4 * 90);
}

// libswscale wants full-range YUV described by its range flag rather than by the deprecated
// JPEG pixel formats (it rebuilds a cached context on every frame otherwise).
AVPixelFormat withoutJpegFormat(AVPixelFormat format, bool& fullRange) {
  switch (format) {
    case AV_PIX_FMT_YUVJ420P: fullRange = true; return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: fullRange = true; return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: fullRange = true; return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: fullRange = true; return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P: fullRange = true; return AV_PIX_FMT_YUV411P;
    default: return format;
  }
}

// Decodes the first video stream and hands each frame, its stream and the frame's upright picture
// in `format` to onFrame.
void forEachPicture(const std::filesystem::path& file, AVPixelFormat pixels, QImage::Format format,
                    const std::function<void(const AVFrame&, const AVStream&, const QImage&)>& onFrame) {
  auto opened = openFirstStream(file, AVMEDIA_TYPE_VIDEO);
  if (!opened) return;
  const int rotation = displayRotation(*opened->stream);
  SwsPtr converter;
  decodeAll(*opened, [&](const AVFrame& frame) {
    bool fullRange = frame.color_range == AVCOL_RANGE_JPEG;
    const AVPixelFormat source = withoutJpegFormat(static_cast<AVPixelFormat>(frame.format), fullRange);
    converter.reset(sws_getCachedContext(converter.release(), frame.width, frame.height, source, frame.width,
                                         frame.height, pixels, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!converter) return;
    const int* coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    sws_setColorspaceDetails(converter.get(), coefficients, fullRange ? 1 : 0, coefficients, 1, 0, 1 << 16, 1 << 16);
    // libswscale's vector code writes a few bytes past the end of each line, so it fills a padded
    // FFmpeg buffer rather than the QImage's tightly sized one.
    FramePtr converted(av_frame_alloc());
    if (!converted) return;
    converted->format = pixels;
    converted->width = frame.width;
    converted->height = frame.height;
    if (av_frame_get_buffer(converted.get(), 0) < 0) return;
    sws_scale(converter.get(), frame.data, frame.linesize, 0, frame.height, converted->data, converted->linesize);
    QImage stored(frame.width, frame.height, format);
    const auto rowBytes = static_cast<std::size_t>(av_image_get_linesize(pixels, frame.width, 0));
    for (int y = 0; y < frame.height; ++y)
      std::memcpy(stored.scanLine(y), converted->data[0] + static_cast<std::ptrdiff_t>(y) * converted->linesize[0],
                  rowBytes);
    onFrame(frame, *opened->stream, rotation == 0 ? stored : stored.transformed(QTransform().rotate(rotation)));
  });
}

RationalTime ticks(std::int64_t value, AVRational timeBase) { return {value * timeBase.num, timeBase.den}; }

}  // namespace

std::vector<DecodedFrame> readFrames(const std::filesystem::path& file) {
  std::vector<DecodedFrame> frames;
  std::optional<RationalTime> streamEnd;
  forEachPicture(file, AV_PIX_FMT_GRAY8, QImage::Format_Grayscale8,
                 [&](const AVFrame& frame, const AVStream& stream, const QImage& upright) {
                   frames.push_back({ticks(frame.best_effort_timestamp, stream.time_base),
                                     ticks(frame.pkt_duration, stream.time_base), readBarcode(upright)});
                   if (stream.start_time != AV_NOPTS_VALUE && stream.duration != AV_NOPTS_VALUE)
                     streamEnd = ticks(stream.start_time + stream.duration, stream.time_base);
                 });
  // With composition offsets (B-frames) the demuxer's packet durations are guesses from the
  // nominal rate; the gaps between presentation times and the stream's end are the stored truth.
  for (std::size_t i = 0; i + 1 < frames.size(); ++i) frames[i].duration = frames[i + 1].time - frames[i].time;
  // A declared end far beyond any frame's length is a placeholder (fragmented files store
  // 0xFFFFFFFF ticks there), not timing.
  RationalTime longest = frames.empty() ? RationalTime::zero() : frames.back().duration;
  for (std::size_t i = 0; i + 1 < frames.size(); ++i) longest = std::max(longest, frames[i].duration);
  if (!frames.empty() && streamEnd && *streamEnd > frames.back().time &&
      *streamEnd - frames.back().time <= longest.multipliedBy(2))
    frames.back().duration = *streamEnd - frames.back().time;
  return frames;
}

std::vector<QImage> readPictures(const std::filesystem::path& file) {
  std::vector<QImage> pictures;
  forEachPicture(file, AV_PIX_FMT_RGB32, QImage::Format_RGB32,
                 [&](const AVFrame&, const AVStream&, const QImage& upright) { pictures.push_back(upright); });
  return pictures;
}

}  // namespace vantrix::testing
