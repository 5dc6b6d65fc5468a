#pragma once

// Owning handles for the FFmpeg objects the fixture writer and reader use, so that every early
// return releases what was allocated. Each deleter accepts null.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace vantrix::testing {

struct InputContextDeleter {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
// Output contexts own their AVIOContext when one was opened (pb non-null).
struct OutputContextDeleter {
  void operator()(AVFormatContext* c) const {
    if (c == nullptr) return;
    if (c->pb != nullptr && !(c->oformat->flags & AVFMT_NOFILE)) avio_closep(&c->pb);
    avformat_free_context(c);
  }
};
struct CodecContextDeleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsDeleter {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};

using InputContextPtr = std::unique_ptr<AVFormatContext, InputContextDeleter>;
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsPtr = std::unique_ptr<SwsContext, SwsDeleter>;

// FFmpeg's message for an AVERROR code.
inline std::string ffmpegError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

}  // namespace vantrix::testing
