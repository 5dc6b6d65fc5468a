#pragma once

// The fixture writer and reader use the media layer's owning handles under their own short names;
// only the handles are shared, none of the decoding logic, so the fixtures stay an independent
// check of the product code.

#include "media/FfmpegPtr.h"

#include <string>

namespace vantrix::testing {

using InputContextPtr = vantrix::InputFormatPtr;
using OutputContextPtr = vantrix::OutputFormatPtr;
using CodecContextPtr = vantrix::CodecContextPtr;
using FramePtr = vantrix::FramePtr;
using PacketPtr = vantrix::PacketPtr;
using SwsPtr = vantrix::SwsContextPtr;

// FFmpeg's message for an AVERROR code.
inline std::string ffmpegError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

}  // namespace vantrix::testing
