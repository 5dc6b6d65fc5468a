#pragma once

// Owning handles for FFmpeg objects, so that every early return releases what was allocated.
// Each deleter accepts null. A handle is used by one thread at a time, like the object it owns.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>

namespace vantrix {

struct InputFormatDeleter {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
// An output context also owns its AVIOContext once one was opened (pb non-null).
struct OutputFormatDeleter {
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
struct SwsContextDeleter {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};
struct SwrContextDeleter {
  void operator()(SwrContext* s) const { swr_free(&s); }
};

using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatDeleter>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;
using SwrContextPtr = std::unique_ptr<SwrContext, SwrContextDeleter>;

// Fresh empty frame and packet; null only when memory is exhausted.
inline FramePtr makeFrame() { return FramePtr(av_frame_alloc()); }
inline PacketPtr makePacket() { return PacketPtr(av_packet_alloc()); }

// Drops a packet's or frame's payload reference when the scope ends, so a read loop cannot leak
// a reference on an early return.
class PacketUnref {
 public:
  explicit PacketUnref(AVPacket* p) : m_packet(p) {}
  ~PacketUnref() { av_packet_unref(m_packet); }
  PacketUnref(const PacketUnref&) = delete;
  PacketUnref& operator=(const PacketUnref&) = delete;

 private:
  AVPacket* m_packet;
};

}  // namespace vantrix
