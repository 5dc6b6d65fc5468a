#pragma once

// Owning handles for the FFmpeg objects the fixture library uses, and opening and decoding a file's first stream.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

namespace vantrix::testing {

template <typename T, void (*Free)(T**)>
struct FreeThrough {
  void operator()(T* object) const { Free(&object); }
};
struct OutputContextDeleter {  // output contexts own their AVIOContext once one is opened
  void operator()(AVFormatContext* c) const {
    if (c->pb != nullptr && !(c->oformat->flags & AVFMT_NOFILE)) avio_closep(&c->pb);
    avformat_free_context(c);
  }
};
struct SwsDeleter {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};

using InputContextPtr = std::unique_ptr<AVFormatContext, FreeThrough<AVFormatContext, avformat_close_input>>;
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeThrough<AVCodecContext, avcodec_free_context>>;
using FramePtr = std::unique_ptr<AVFrame, FreeThrough<AVFrame, av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, FreeThrough<AVPacket, av_packet_free>>;
using SwsPtr = std::unique_ptr<SwsContext, SwsDeleter>;

struct OpenedStream {
  InputContextPtr input;
  CodecContextPtr decoder;
  AVStream* stream = nullptr;  // owned by input
};

// The file's first stream of `type` (attached pictures are not video) with an opened decoder, or nullopt.
std::optional<OpenedStream> openFirstStream(const std::filesystem::path& file, AVMediaType type);

// Hands each decoded frame to onFrame (valid during the call) up to the end or the first demuxing or decoding
// error; returns whether the end was reached cleanly.
bool decodeAll(OpenedStream& opened, const std::function<void(const AVFrame&)>& onFrame);

}  // namespace vantrix::testing
