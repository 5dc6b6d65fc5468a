#include "media/FrameScaler.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>

namespace vantrix {
namespace {

// Formats swscale still accepts but flags as deprecated: the same samples at full range.
AVPixelFormat withoutFullRangeAlias(AVPixelFormat f, bool& fullRange) {
  switch (f) {
    case AV_PIX_FMT_YUVJ420P:
      fullRange = true;
      return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
      fullRange = true;
      return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
      fullRange = true;
      return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P:
      fullRange = true;
      return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P:
      fullRange = true;
      return AV_PIX_FMT_YUV411P;
    default:
      return f;
  }
}

}  // namespace

QImage FrameScaler::toImage(const AVFrame& frame, QSize size) {
  const int width = std::max(1, size.width());
  const int height = std::max(1, size.height());
  bool fullRange = frame.color_range == AVCOL_RANGE_JPEG;
  const AVPixelFormat source = withoutFullRangeAlias(static_cast<AVPixelFormat>(frame.format), fullRange);

  SwsContext* ctx = sws_getCachedContext(m_context.release(), frame.width, frame.height, source, width, height,
                                         AV_PIX_FMT_RGB32, SWS_BILINEAR, nullptr, nullptr, nullptr);
  m_context.reset(ctx);
  if (ctx == nullptr) return {};

  // Untagged video is BT.709 from HD sizes upwards and BT.601 below, as players assume.
  int matrix = frame.colorspace;
  if (matrix == AVCOL_SPC_UNSPECIFIED || matrix == AVCOL_SPC_RESERVED)
    matrix = frame.height >= 720 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
  const int* coefficients = sws_getCoefficients(matrix);
  sws_setColorspaceDetails(ctx, coefficients, fullRange ? 1 : 0, sws_getCoefficients(AVCOL_SPC_BT709), 1, 0, 1 << 16,
                           1 << 16);

  QImage image(width, height, QImage::Format_RGB32);
  if (image.isNull()) return {};
  std::uint8_t* planes[4] = {image.bits(), nullptr, nullptr, nullptr};
  int strides[4] = {static_cast<int>(image.bytesPerLine()), 0, 0, 0};
  if (sws_scale(ctx, frame.data, frame.linesize, 0, frame.height, planes, strides) != height) return {};
  return image;
}

}  // namespace vantrix
