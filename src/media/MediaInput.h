#pragma once

#include "media/FfmpegPtr.h"
#include "media/MediaError.h"

#include <expected>
#include <filesystem>
#include <memory>
#include <stop_token>

namespace vantrix {

// One demuxer opened on a file, with its stream information read. Its blocking I/O (the open
// itself, stream probing, reads and seeks) aborts soon after the current stop token is triggered;
// the interrupted call then fails with AVERROR_EXIT.
//
// FFmpeg contexts are not thread-safe, so every reader (probe, thumbnails, player, exporter) opens
// its own. Used by one thread at a time; movable, not copyable.
class MediaInput {
 public:
  // Fails with the FFmpeg error of the open or the stream probing, or with `cancelled` when the
  // stop token ended it.
  static std::expected<MediaInput, MediaError> open(const std::filesystem::path& path, std::stop_token stop);

  AVFormatContext* context() const { return m_context.get(); }
  AVStream* stream(int index) const { return m_context->streams[index]; }

  // Replaces the token that interrupts I/O, e.g. for the next request on a long-lived reader. An
  // interruption of the previous request does not carry over: FFmpeg keeps a failed read's error
  // and end-of-file mark on the I/O context, and the next read would fail with it.
  void setStopToken(std::stop_token stop);
  bool stopRequested() const { return m_stop->stop_requested(); }

  // The next packet (av_read_frame). Fails with AVERROR_EXIT once the stop token is triggered,
  // also when the read itself came back: an interruption part-way through a packet can leave it
  // cut short, and a decoder must never see such a packet.
  int read(AVPacket* packet);

 private:
  MediaInput() = default;
  static int interrupted(void* token);

  // Declared before the context so that it outlives it: the context's interrupt callback points
  // at this token, and its heap address stays put when the input is moved.
  std::unique_ptr<std::stop_token> m_stop;
  InputFormatPtr m_context;
};

// The error for a failed FFmpeg call: `cancelled` when the failure came from the interrupt,
// otherwise the AVERROR wrapped with `context`.
MediaError mediaCallFailed(int averror, bool stopRequested, std::string context);

}  // namespace vantrix
