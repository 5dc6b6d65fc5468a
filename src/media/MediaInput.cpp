#include "media/MediaInput.h"

namespace vantrix {

void MediaInput::setStopToken(std::stop_token stop) {
  *m_stop = std::move(stop);
  AVIOContext* io = m_context ? m_context->pb : nullptr;
  if (io != nullptr && io->error == AVERROR_EXIT) {
    io->error = 0;
    io->eof_reached = 0;
  }
}

int MediaInput::read(AVPacket* packet) {
  const int r = av_read_frame(m_context.get(), packet);
  if (r < 0 || !stopRequested()) return r;
  av_packet_unref(packet);
  return AVERROR_EXIT;
}

int MediaInput::interrupted(void* token) {
  return static_cast<const std::stop_token*>(token)->stop_requested() ? 1 : 0;
}

MediaError mediaCallFailed(int averror, bool stopRequested, std::string context) {
  if (stopRequested || averror == AVERROR_EXIT) return MediaError::own(MediaError::Code::cancelled, std::move(context));
  return MediaError::ffmpeg(averror, std::move(context));
}

std::expected<MediaInput, MediaError> MediaInput::open(const std::filesystem::path& path, std::stop_token stop) {
  MediaInput input;
  input.m_stop = std::make_unique<std::stop_token>(std::move(stop));
  const std::string name = path.filename().string();

  AVFormatContext* raw = avformat_alloc_context();
  if (raw == nullptr) return std::unexpected(MediaError::ffmpeg(AVERROR(ENOMEM), "Allocating a demuxer for " + name));
  raw->interrupt_callback = {&MediaInput::interrupted, input.m_stop.get()};
  // Only the QuickTime / MPEG-4 file format is read, whatever else the content looks like: the
  // editor opens .mov, .mp4 and .m4v files, and a Matroska or transport stream file under such a
  // name would otherwise reach demuxers and decoders nobody meant to offer (where fuzzed files
  // have shown heap damage inside FFmpeg).
  static const AVInputFormat* const quickTime = av_find_input_format("mov");
  // On failure avformat_open_input frees the context and nulls the pointer.
  if (const int r = avformat_open_input(&raw, path.c_str(), quickTime, nullptr); r < 0)
    return std::unexpected(mediaCallFailed(r, input.stopRequested(), "Opening " + name));
  input.m_context.reset(raw);

  if (const int r = avformat_find_stream_info(raw, nullptr); r < 0)
    return std::unexpected(mediaCallFailed(r, input.stopRequested(), "Reading the streams of " + name));
  if (input.stopRequested()) return std::unexpected(MediaError::own(MediaError::Code::cancelled, "Opening " + name));
  return input;
}

}  // namespace vantrix
