#include "media/CompositionReader.h"

#include "media/AudioSampleSource.h"
#include "media/VideoFrameSource.h"

#include <algorithm>

namespace vantrix {

CompositionReader::CompositionReader(CompositionReader&&) noexcept = default;
CompositionReader& CompositionReader::operator=(CompositionReader&&) noexcept = default;
CompositionReader::~CompositionReader() = default;

void CompositionReader::LayoutDeleter::operator()(AVChannelLayout* l) const {
  av_channel_layout_uninit(l);
  delete l;
}

std::int64_t CompositionReader::audioSampleAt(RationalTime t) { return t.convertedToTimescale(kSampleRate).value(); }

std::expected<CompositionReader, MediaError> CompositionReader::open(std::shared_ptr<const Composition> composition,
                                                                     std::stop_token stop, Options options) {
  CompositionReader reader;
  reader.m_composition = composition;
  reader.m_options = options;
  reader.m_options.audioLayout = nullptr;  // not owned: the layout is kept in m_layout below
  reader.m_stop = stop;
  auto video = VideoFrameSource::open(composition, stop, options.decoderThreads);
  if (!video) return std::unexpected(video.error());
  reader.m_video = std::move(*video);

  if (composition->hasAudioTrack()) {
    const AudioTrack& track = *composition->asset()->audio();
    reader.m_layout.reset(new AVChannelLayout{});
    AVChannelLayout* layout = reader.m_layout.get();
    if (options.audioLayout != nullptr) av_channel_layout_copy(layout, options.audioLayout);
    else if (track.channelMask != 0) av_channel_layout_from_mask(layout, track.channelMask);
    else av_channel_layout_default(layout, std::max(1, track.channelCount));
    reader.m_audioEnd = audioSampleAt(composition->duration());
  }
  return reader;
}

const AVChannelLayout* CompositionReader::audioLayout() const { return m_layout.get(); }

std::expected<void, MediaError> CompositionReader::replaceComposition(std::shared_ptr<const Composition> composition) {
  if (composition->asset() != m_composition->asset()) {
    Options options = m_options;
    options.audioLayout = m_layout.get();
    auto fresh = open(std::move(composition), m_stop, options);
    if (!fresh) return std::unexpected(fresh.error());
    *this = std::move(*fresh);
    return {};
  }
  m_video->replaceComposition(composition);
  m_composition = std::move(composition);
  m_audioPosition = 0;
  m_audioEnd = m_layout ? audioSampleAt(m_composition->duration()) : 0;
  return {};
}

void CompositionReader::setStopToken(std::stop_token stop) {
  m_stop = stop;
  m_video->setStopToken(stop);
  if (m_audio) m_audio->setStopToken(std::move(stop));
}

std::expected<void, MediaError> CompositionReader::seek(RationalTime t) {
  const RationalTime clamped = std::clamp(t, RationalTime::zero(), m_composition->duration());
  m_video->seek(clamped);
  m_audioPosition = audioSampleAt(clamped);
  return {};
}

std::expected<std::optional<CompositionReader::VideoFrame>, MediaError> CompositionReader::nextVideoFrame() {
  auto frame = m_video->next();
  if (!frame) return std::unexpected(frame.error());
  if (!*frame) return std::nullopt;
  return VideoFrame{std::move((*frame)->picture), (*frame)->outputTime, (*frame)->sourceTime};
}

std::expected<int, MediaError> CompositionReader::readAudio(float* const* planes, int count) {
  if (!m_layout) return 0;
  const int channels = m_layout->nb_channels;
  int written = 0;
  while (written < count && m_audioPosition < m_audioEnd) {
    const std::int64_t position = m_audioPosition;
    // The normal-speed edit playing at this sample, if any; its sample span uses the same
    // rounding as every other boundary, so consecutive edits tile the output exactly.
    const CompositionEdit* edit = nullptr;
    std::int64_t editEnd = m_audioEnd;
    for (const CompositionEdit& e : m_composition->audioEdits()) {
      const std::int64_t start = audioSampleAt(e.outputStart);
      const std::int64_t end = audioSampleAt(e.outputEnd());
      if (position < start) {
        editEnd = start;  // silence up to the next edit
        break;
      }
      if (position < end) {
        edit = &e;
        editEnd = end;
        break;
      }
    }
    const int n = static_cast<int>(std::min<std::int64_t>(count - written, editEnd - position));
    if (edit == nullptr) {
      for (int c = 0; c < channels; ++c) std::fill_n(planes[c] + written, n, 0.0f);
    } else {
      const std::int64_t sourceIndex = audioSampleAt(edit->sourceStart) + (position - audioSampleAt(edit->outputStart));
      // The sound's demuxer opens on first use, so the first picture does not wait for it.
      if (!m_audio) {
        auto audio = AudioSampleSource::open(m_composition->asset(), *m_layout, kSampleRate, m_stop);
        if (!audio) return std::unexpected(audio.error());
        m_audio = std::move(*audio);
      }
      if (auto ok = m_audio->read(sourceIndex, n, planes, written); !ok) return std::unexpected(ok.error());
    }
    written += n;
    m_audioPosition += n;
  }
  return written;
}

std::int64_t CompositionReader::framesDecoded() const { return m_video->framesDecoded(); }

}  // namespace vantrix
