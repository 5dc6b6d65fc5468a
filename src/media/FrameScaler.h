#pragma once

#include "media/FfmpegPtr.h"

#include <QImage>
#include <QSize>

namespace vantrix {

// Converts decoded video frames to QImage::Format_RGB32 pictures of a requested size with
// libswscale, reading the frame's colour matrix and range so that colours come out right. Keeps
// its scaler between calls while the frame format and sizes stay the same.
//
// Used by one thread at a time (the decoding thread); movable, not copyable.
class FrameScaler {
 public:
  // The frame scaled to `size` (stored orientation, no display transform), or a null image when
  // the frame's format cannot be converted or memory is exhausted. Sizes below 1 become 1.
  QImage toImage(const AVFrame& frame, QSize size);

 private:
  SwsContextPtr m_context;
};

}  // namespace vantrix
