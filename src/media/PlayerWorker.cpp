#include "media/PlayerWorker.h"

#include "media/MediaLog.h"
#include "media/TimeMath.h"

#include <algorithm>
#include <chrono>

namespace vantrix {
namespace {

using std::chrono::milliseconds;

RationalTime millis(std::int64_t ms) { return {ms, 1000}; }

// A sped-up picture queued closer than this to its showing time means exact decoding is losing.
const RationalTime kCatchUpLead = millis(80);
// Catch-up decodes past the keyframe only while the picture is at least this far ahead.
const RationalTime kChainLead = millis(120);
// ... and moves the reader to the next stretch once it is this far ahead.
const RationalTime kPrefetchLead = millis(250);
// A catch-up that fell behind resumes this far ahead of the playhead.
const RationalTime kResumeAhead = millis(60);
// Far less than any frame's duration.
const RationalTime kBeforeEnd = millis(1);
constexpr int kAudioChunkFrames = 1024;
// The decode thread looks again this often while it waits for the sound device to make room.
constexpr milliseconds kPoll{10};

}  // namespace

PlayerWorker::PlayerWorker(std::shared_ptr<const Playhead> playhead, std::shared_ptr<AudioRing> ring, Reports reports,
                           int decoderThreads, bool catchUp)
    : m_playhead(std::move(playhead)),
      m_ring(std::move(ring)),
      m_reports(std::move(reports)),
      m_decoderThreads(decoderThreads),
      m_catchUpAllowed(catchUp),
      m_thread([this](std::stop_token stop) { run(std::move(stop)); }) {}

PlayerWorker::~PlayerWorker() {
  {
    std::lock_guard lock(m_mutex);
    m_requestStop.request_stop();
  }
  m_thread.request_stop();
  m_thread.join();
}

void PlayerWorker::start(std::uint64_t session, std::shared_ptr<const Composition> item, RationalTime at) {
  std::lock_guard lock(m_mutex);
  m_requestStop.request_stop();
  m_requestStop = std::stop_source();
  m_pending = Request{session, std::move(item), at, m_requestStop.get_token()};
  m_session = session;
  m_queue.clear();
  m_finished = false;
  m_wake.notify_all();
}

void PlayerWorker::setFrameSize(QSize size) {
  std::lock_guard lock(m_mutex);
  m_size = size;
}

std::optional<RationalTime> PlayerWorker::nextTime(std::uint64_t session) const {
  std::lock_guard lock(m_mutex);
  if (session != m_session || m_queue.empty()) return std::nullopt;
  return m_queue.front().frame.outputTime;
}

std::optional<PlayerWorker::QueuedFrame> PlayerWorker::take(std::uint64_t session) {
  std::lock_guard lock(m_mutex);
  if (session != m_session || m_queue.empty()) return std::nullopt;
  QueuedFrame front = std::move(m_queue.front());
  m_queue.pop_front();
  m_wake.notify_all();
  return front;
}

int PlayerWorker::queued(std::uint64_t session) const {
  std::lock_guard lock(m_mutex);
  return session == m_session ? static_cast<int>(m_queue.size()) : 0;
}

bool PlayerWorker::finished(std::uint64_t session) const {
  std::lock_guard lock(m_mutex);
  return session == m_session && m_finished;
}

void PlayerWorker::run(std::stop_token stop) {
  for (;;) {
    std::optional<Request> request;
    {
      std::unique_lock lock(m_mutex);
      const bool ready = m_wake.wait_for(lock, stop, kPoll, [&] { return m_pending.has_value() || wantsWorkLocked(); });
      if (stop.stop_requested()) return;
      if (!ready) {
        m_audioBlocked = false;  // the device had time to play some of what blocked the ring
        continue;
      }
      request = std::move(m_pending);
      m_pending.reset();
    }
    if (request)
      begin(*request);
    else
      step();
  }
}

bool PlayerWorker::wantsWorkLocked() const {
  if (!m_reader || m_producing != m_session) return false;
  const bool video = !m_videoDone && static_cast<int>(m_queue.size()) < kQueueCapacity;
  return video || wantsAudio();
}

bool PlayerWorker::wantsAudio() const {
  if (!m_ring || m_audioDone || m_audioBlocked) return false;
  return !m_chunk.empty() || m_ring->freeFrames() >= kAudioChunkFrames;
}

void PlayerWorker::begin(const Request& request) {
  m_producing = request.session;
  m_stop = request.stop;
  m_catchUp.reset();
  m_prefetched.reset();
  m_chunk.clear();
  m_audioBlocked = false;
  m_videoDone = true;
  m_audioDone = true;
  if (request.item != m_item) {
    const bool sameAsset = request.item && m_item && request.item->asset() == m_item->asset();
    if (m_sampler && !sameAsset) m_sampler.reset();
    m_item = request.item;
    if (!m_item) {
      m_reader.reset();
      return finish();
    }
    if (sameAsset && m_reader) {
      // An edit of the same video: the reader keeps its decoders and decoded frames, so the seek
      // below to the same source instant decodes little or nothing.
      if (auto replaced = m_reader->replaceComposition(m_item); !replaced) {
        m_reader.reset();
        m_item.reset();
        return fail(replaced.error());
      }
    } else {
      m_reader.reset();
      static const AVChannelLayout kStereo = AV_CHANNEL_LAYOUT_STEREO;
      auto reader = CompositionReader::open(m_item, request.stop, {m_ring ? &kStereo : nullptr, m_decoderThreads});
      if (!reader) {
        m_item.reset();
        return fail(reader.error());
      }
      m_reader.emplace(std::move(*reader));
    }
  }
  if (!m_reader) return finish();
  m_reader->setStopToken(request.stop);
  if (m_sampler) m_sampler->setStopToken(request.stop);
  const RationalTime end = m_item->duration();
  const RationalTime at = std::clamp(request.at, RationalTime::zero(), end);
  // Nothing starts at the very end: what shows there is the last picture, the one showing just before.
  const RationalTime pictureAt = at == end ? std::max(RationalTime::zero(), end - kBeforeEnd) : at;
  if (auto sought = m_reader->seek(pictureAt); !sought) return fail(sought.error());
  m_videoAt = pictureAt;
  m_videoDone = false;
  m_audioPosition = CompositionReader::audioSampleAt(at);
  m_audioDone = !m_ring || m_reader->audioLayout() == nullptr;
  if (!m_audioDone) m_planes.assign(static_cast<std::size_t>(m_reader->audioLayout()->nb_channels),
                                    std::vector<float>(kAudioChunkFrames));
}

void PlayerWorker::step() {
  bool video = false;
  {
    std::lock_guard lock(m_mutex);
    video = !m_videoDone && static_cast<int>(m_queue.size()) < kQueueCapacity;
  }
  const bool audio = wantsAudio();
  // Keep the two streams level in output time, so that neither runs dry first.
  if (video && audio)
    video = m_videoAt <= RationalTime(m_audioPosition, CompositionReader::kSampleRate);
  if (video)
    produceVideo();
  else if (audio)
    produceAudio();
}

void PlayerWorker::produceVideo() {
  if (m_catchUp) return stepCatchUp();
  std::optional<CompositionReader::VideoFrame> frame;
  if (m_prefetched) {
    frame = std::move(m_prefetched);
    m_prefetched.reset();
  } else {
    auto next = m_reader->nextVideoFrame();
    if (!next) return fail(next.error());
    frame = std::move(*next);
  }
  if (!frame) {
    // A file cut short under the reader that holds it open reads as an early end: that is a
    // failure to report, not the end of the video.
    if (auto same = m_item->asset()->checkUnchanged(); !same) return fail(same.error());
    return finish();
  }
  m_videoAt = frame->outputTime;
  const CompositionEdit* edit = m_item->videoEditAt(frame->outputTime);
  if (m_catchUpAllowed && edit != nullptr && edit->speed && m_playhead->running() && lead(frame->outputTime) < kCatchUpLead)
    enterCatchUp(*edit, frame->outputTime);
  queue(*frame->picture, frame->outputTime, frame->sourceTime, false);
}

void PlayerWorker::enterCatchUp(const CompositionEdit& edit, RationalTime from) {
  if (!m_sampler) {
    auto sampler = CatchUpSampler::open(m_item->asset(), m_stop, m_decoderThreads);
    if (!sampler) {
      // A newer request stopped the open: not a failure, and that request is waiting.
      if (sampler.error().is(MediaError::Code::cancelled)) return;
      // Exact decoding goes on, late; nothing is lost but smoothness.
      qCCritical(lcMedia, "Cannot sample pictures to keep up: %s", sampler.error().description().c_str());
      return;
    }
    m_sampler.emplace(std::move(*sampler));
  }
  m_sampler->setStopToken(m_stop);
  m_catchUp = CatchUp{edit, nextGridInstant(from), std::nullopt, false};
}

void PlayerWorker::stepCatchUp() {
  CatchUp& c = *m_catchUp;
  if (c.next >= c.edit.outputEnd()) {
    if (!c.prefetched) prefetch(c.edit.outputEnd());
    m_catchUp.reset();
    return;
  }
  if (!c.prefetched && lead(c.next) > kPrefetchLead) {
    prefetch(c.edit.outputEnd());
    c.prefetched = true;
    return;
  }
  if (lead(c.next) < RationalTime::zero()) {
    // Fallen behind after all: pick up again a little ahead of the playhead.
    const RationalTime resume = nextGridInstant(m_playhead->now() + kResumeAhead);
    c.next = std::min(std::max(c.next, resume), c.edit.outputEnd());
    if (c.next == c.edit.outputEnd()) return;
  }
  const RationalTime instant = c.next;
  const auto picture = m_sampler->sample(c.edit.sourceTimeAt(instant), [&] { return lead(instant) > kChainLead; });
  if (!picture) return fail(picture.error());
  c.next = nextGridInstant(instant);
  m_videoAt = instant;
  if (picture->frame == nullptr || c.lastSource == picture->sourceTime) return;
  c.lastSource = picture->sourceTime;
  queue(*picture->frame, instant, picture->sourceTime, true);
}

void PlayerWorker::prefetch(RationalTime at) {
  if (auto sought = m_reader->seek(at); !sought) return fail(sought.error());
  m_chunk.clear();
  m_audioPosition = CompositionReader::audioSampleAt(at);
  auto next = m_reader->nextVideoFrame();
  if (!next) return fail(next.error());
  m_prefetched = std::move(*next);
}

void PlayerWorker::produceAudio() {
  if (m_chunk.empty()) {
    std::vector<float*> planes;
    for (auto& plane : m_planes) planes.push_back(plane.data());
    const auto read = m_reader->readAudio(planes.data(), kAudioChunkFrames);
    if (!read) return fail(read.error());
    if (*read == 0) {
      m_audioDone = true;
      return;
    }
    const auto channels = m_planes.size();
    m_chunk.resize(static_cast<std::size_t>(*read) * channels);
    for (std::size_t i = 0; i < static_cast<std::size_t>(*read); ++i)
      for (std::size_t c = 0; c < channels; ++c) m_chunk[i * channels + c] = m_planes[c][i];
    m_chunkPosition = m_audioPosition;
    m_audioPosition += *read;
  }
  switch (m_ring->write(m_producing, m_chunkPosition, m_chunk)) {
    case AudioRing::Write::written:
    case AudioRing::Write::stale: m_chunk.clear(); break;
    case AudioRing::Write::full: m_audioBlocked = true; break;
  }
}

void PlayerWorker::queue(const AVFrame& picture, RationalTime outputTime, RationalTime sourceTime, bool catchUp) {
  QSize size;
  {
    std::lock_guard lock(m_mutex);
    size = m_size;
  }
  if (size.isEmpty()) size = QSize(picture.width, picture.height);
  QueuedFrame entry{PlayerFrame{m_scaler.toImage(picture, size), m_item->transform(), outputTime, sourceTime}, catchUp};
  {
    std::lock_guard lock(m_mutex);
    if (m_producing != m_session) return;
    m_queue.push_back(std::move(entry));
  }
  m_reports.framesReady(m_producing);
}

void PlayerWorker::finish() {
  m_videoDone = true;
  {
    std::lock_guard lock(m_mutex);
    if (m_producing != m_session) return;
    m_finished = true;
  }
  m_reports.framesReady(m_producing);
}

void PlayerWorker::fail(const MediaError& error) {
  m_videoDone = true;
  m_audioDone = true;
  if (error.is(MediaError::Code::cancelled)) return;  // superseded: the next request is waiting
  qCCritical(lcMedia, "Playback failed: %s", error.description().c_str());
  {
    std::lock_guard lock(m_mutex);
    if (m_producing != m_session) return;
    m_finished = true;
  }
  m_reports.failed(m_producing, error);
}

RationalTime PlayerWorker::nextGridInstant(RationalTime t) const {
  const AVRational rate = m_item->asset()->video()->frameRate;
  using namespace timemath;
  // The first k / rate strictly after t: k = floor(t x rate) + 1.
  const Wide k = floorDiv(mul(t.value(), rate.num), mul(t.timescale(), rate.den)) + 1;
  return {narrow(mul(k, rate.den)), rate.num};
}

}  // namespace vantrix
