#include "FixtureDecoding.h"

namespace vantrix::testing {

std::optional<OpenedStream> openFirstStream(const std::filesystem::path& file, AVMediaType type) {
  AVFormatContext* raw = nullptr;
  if (avformat_open_input(&raw, file.c_str(), nullptr, nullptr) < 0) return std::nullopt;
  OpenedStream opened;
  opened.input.reset(raw);
  if (avformat_find_stream_info(raw, nullptr) < 0) return std::nullopt;
  for (unsigned i = 0; i < raw->nb_streams && opened.stream == nullptr; ++i) {
    AVStream* candidate = raw->streams[i];
    if (candidate->codecpar->codec_type == type && !(candidate->disposition & AV_DISPOSITION_ATTACHED_PIC))
      opened.stream = candidate;
  }
  if (opened.stream == nullptr) return std::nullopt;
  const AVCodec* codec = avcodec_find_decoder(opened.stream->codecpar->codec_id);
  if (codec == nullptr) return std::nullopt;
  opened.decoder.reset(avcodec_alloc_context3(codec));
  if (!opened.decoder || avcodec_parameters_to_context(opened.decoder.get(), opened.stream->codecpar) < 0)
    return std::nullopt;
  opened.decoder->pkt_timebase = opened.stream->time_base;
  if (avcodec_open2(opened.decoder.get(), codec, nullptr) < 0) return std::nullopt;
  return opened;
}

bool decodeAll(OpenedStream& opened, const std::function<void(const AVFrame&)>& onFrame) {
  AVCodecContext* decoder = opened.decoder.get();
  PacketPtr packet(av_packet_alloc());
  FramePtr frame(av_frame_alloc());
  if (!packet || !frame) return false;
  auto receiveAll = [&] {
    for (;;) {
      const int result = avcodec_receive_frame(decoder, frame.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
      if (result < 0) return false;
      onFrame(*frame);
      av_frame_unref(frame.get());
    }
  };
  for (;;) {
    const int read = av_read_frame(opened.input.get(), packet.get());
    if (read == AVERROR_EOF) break;
    if (read < 0) return false;
    const bool ours = packet->stream_index == opened.stream->index;
    const int sent = ours ? avcodec_send_packet(decoder, packet.get()) : 0;
    av_packet_unref(packet.get());
    if (sent < 0 || !receiveAll()) return false;
  }
  return avcodec_send_packet(decoder, nullptr) >= 0 && receiveAll();
}

}  // namespace vantrix::testing
